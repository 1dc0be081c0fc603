// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: point trees over the positions of a fragment.
#pragma once

#include "tressel/mem_array.hpp"
#include "vantor/trees.hpp"

#include <algorithm>

namespace Tressel {

// A quad tree over the first count positions (entry = position index) inside box, with buckets
// of 64 entries. Positions outside the box, or with a NaN x or y, are refused by the tree with
// its message. Empty tree (not valid) for an empty box.
template <class Index>
Basalt::StrongPtr<Vantor::QuadTree<Index>>
createQuadTree(const MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
               std::size_t count, const Basalt::StrongPtr<Vantor::BoundingBox>& box) {
  auto tree = std::make_shared<Vantor::QuadTree<Index>>(box, 64);
  if (!tree->valid())
    return tree;
  count = std::min(count, positions.size());
  for (std::size_t i = 0; i < count; ++i)
    tree->insert(positions[i], static_cast<Index>(i));
  return tree;
}

} // namespace Tressel
