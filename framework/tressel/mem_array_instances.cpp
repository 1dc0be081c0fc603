// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: explicit instantiation (and so registration at load time) of
// the standard array kinds.
#include "tressel/mem_array_instances.hpp"

#define QUORVEL_INSTANTIATE_ARRAY(N, T) template class Tressel::MemArray<N, T>;
QUORVEL_FOR_EACH_STANDARD_ARRAY(QUORVEL_INSTANTIATE_ARRAY)
#undef QUORVEL_INSTANTIATE_ARRAY
