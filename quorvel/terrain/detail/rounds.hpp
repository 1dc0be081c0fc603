// Quorvel, terrain: what the round-based growers share (planar regression and extrapolation):
// the tree of a round's seeds and the static split of a round's points over the threads.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/kernels.hpp"

#include <omp.h>

namespace Quorvel::detail {

// A tree of type Tree (capacity 64) over bbox holding the points i with admit(i), in index order;
// built by one thread, then only read.
template <class Tree, class Admit>
StrongPtr<Tree> treeOf(const MultiArray<1, point>& positions, const StrongPtr<BoundingBox>& bbox,
                       const Admit& admit) {
  auto tree = std::make_shared<Tree>(bbox, 64);
  tree->reserve(positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i)
    if (admit(i))
      tree->insert(positions[i], static_cast<unsigned>(i));
  return tree;
}

// Runs body(begin, end) once per thread of the library's count, with dynamic adjustment off:
// 0 .. n-1 split into contiguous blocks of n / threads (the first n % threads one more), so that
// what a point's step does never depends on the number of threads.
template <class Body>
void inStaticBlocks(std::size_t n, const Body& body) {
  omp_set_dynamic(0);
#pragma omp parallel num_threads(maximumThreadsMinusOne())
  {
    const auto [begin, end] = staticBlock(n, static_cast<std::size_t>(omp_get_num_threads()),
                                          static_cast<std::size_t>(omp_get_thread_num()));
    body(begin, end);
  }
}

} // namespace Quorvel::detail
