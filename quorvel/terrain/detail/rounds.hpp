// SPDX-License-Identifier: BSD-3-Clause
// Quorvel, terrain: what the round-based growers share (planar regression and extrapolation):
// the tree of a round's seeds.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/kernels.hpp"

namespace Quorvel::detail {

// A tree of type Tree (capacity 64) over bbox holding the points i with admit(i), in index order;
// divided on the threads of the round's point step (into the tree one thread makes), then only
// read.
template <class Tree, class Admit>
StrongPtr<Tree> treeOf(const MultiArray<1, const point>& positions,
                       const StrongPtr<BoundingBox>& bbox, const Admit& admit) {
  auto tree = std::make_shared<Tree>(bbox, 64);
  tree->reserve(positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i)
    if (admit(i))
      tree->insert(positions[i], static_cast<unsigned>(i));
  tree->prepare(maximumThreadsMinusOne());
  return tree;
}

} // namespace Quorvel::detail
