// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the fragments of a field as loops see them, and the points a filter keeps.
#pragma once

#include "basalt/strong_ptr.hpp"
#include "tressel/creative_array.hpp"
#include "tressel/fragment.hpp"

#include <cstddef>
#include <vector>

namespace Quorvel {

// One fragment of a field as the loop sees it.
struct FragmentSlot {
  Basalt::StrongPtr<Tressel::FragmentID> id;
  // Empty when the field holds nothing for the fragment.
  Basalt::StrongPtr<Tressel::CreativeArrayBase> creator;
};

// The points a filter keeps, before anything is copied: fragment k of slots keeps indices[k]
// (ascending). keptCloud() makes the cloud of them; a host can instead copy the kept records of
// the file the cloud was read from, which costs less than copying every field and encoding the
// records again.
struct KeptPoints {
  std::vector<FragmentSlot> slots;
  std::vector<std::vector<std::size_t>> indices;
};

} // namespace Quorvel
