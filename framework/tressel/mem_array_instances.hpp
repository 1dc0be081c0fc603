// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: the array kinds that the framework library instantiates, and
// so registers when it is loaded: ranks 1 to 4 over every element type of point clouds and
// rasters, and the point types of stored positions. Other element types register on their
// first use.
#pragma once

#include "tressel/mem_array.hpp"

#define QUORVEL_FOR_EACH_RANK(MACRO, T) MACRO(1, T) MACRO(2, T) MACRO(3, T) MACRO(4, T)

#define QUORVEL_FOR_EACH_STANDARD_ARRAY(MACRO)                                                     \
  QUORVEL_FOR_EACH_RANK(MACRO, signed char)                                                        \
  QUORVEL_FOR_EACH_RANK(MACRO, unsigned char)                                                      \
  QUORVEL_FOR_EACH_RANK(MACRO, short)                                                              \
  QUORVEL_FOR_EACH_RANK(MACRO, unsigned short)                                                     \
  QUORVEL_FOR_EACH_RANK(MACRO, int)                                                                \
  QUORVEL_FOR_EACH_RANK(MACRO, unsigned int)                                                       \
  QUORVEL_FOR_EACH_RANK(MACRO, long long)                                                          \
  QUORVEL_FOR_EACH_RANK(MACRO, unsigned long long)                                                 \
  QUORVEL_FOR_EACH_RANK(MACRO, float)                                                              \
  QUORVEL_FOR_EACH_RANK(MACRO, double)                                                             \
  QUORVEL_FOR_EACH_RANK(MACRO, long double)                                                        \
  QUORVEL_FOR_EACH_RANK(MACRO, Vantor::PhysicalSpace::point)                                       \
  QUORVEL_FOR_EACH_RANK(MACRO, Vantor::PhysicalSpace::vector)                                      \
  QUORVEL_FOR_EACH_RANK(MACRO, Vantor::PhysicalSpace::bivector)                                    \
  QUORVEL_FOR_EACH_RANK(MACRO, Vantor::PhysicalSpace::FloatPoint)                                  \
  QUORVEL_FOR_EACH_RANK(MACRO, Tressel::FixedArray3)                                               \
  QUORVEL_FOR_EACH_RANK(MACRO, Tressel::Edge)                                                      \
  QUORVEL_FOR_EACH_RANK(MACRO, Vantor::RGB)                                                        \
  QUORVEL_FOR_EACH_RANK(MACRO, Vantor::RGB16)

#define QUORVEL_EXTERN_ARRAY(N, T) extern template class Tressel::MemArray<N, T>;
QUORVEL_FOR_EACH_STANDARD_ARRAY(QUORVEL_EXTERN_ARRAY)
#undef QUORVEL_EXTERN_ARRAY
