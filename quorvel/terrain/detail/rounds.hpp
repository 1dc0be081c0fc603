// SPDX-License-Identifier: BSD-3-Clause
// Quorvel, terrain: what the round-based growers share (planar regression and extrapolation):
// the tree of a round's seeds.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/kernels.hpp"

namespace Quorvel::detail {

// A tree of type Tree (capacity 64) over bbox holding the points i with admit(i), in index order;
// filled and divided on the threads of the round's point step (into the tree one thread makes),
// then only read.
template <class Tree, class Admit>
StrongPtr<Tree> treeOf(const MultiArray<1, const point>& positions,
                       const StrongPtr<BoundingBox>& bbox, const Admit& admit) {
  auto tree = std::make_shared<Tree>(bbox, 64);
  const int threads = maximumThreadsMinusOne();
  tree->insertEach(positions.size(), threads, admit, [&](std::size_t i) { return positions[i]; });
  tree->prepare(threads);
  return tree;
}

} // namespace Quorvel::detail
