// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the classification transfer steps on a tree the caller gives: one source fragment onto
// one target fragment, and one target point against the single tree of one-tree mode.
#include "quorvel/classification/detail/transfer.hpp"

#include <vector>

namespace Quorvel {

using namespace detail;

template <class Tree>
void classificationTransfer(const StrongPtr<Tree>& tree, const Box& box,
                            const MultiArray<1, const point>& sourcePositions,
                            const MultiArray<1, const unsigned char>& sourceClasses,
                            const MultiArray<1, point>& targetPositions,
                            const MultiArray<1, unsigned char>& targetClasses, int threads) {
  if (!tree)
    return;
  const ClassSet source(box.source), target(box.target);
  fillTree(*tree, source, sourcePositions, sourceClasses,
           std::min(sourcePositions.size(), sourceClasses.size()), threads);
  if (!tree->valid() || tree->size() == 0)
    return;
  tree->prepare(threads);

  // The target points that ask, in one static block per thread; the tree answers each block in
  // its own order, and an answer does not depend on the block.
  const std::size_t targetCount = std::min(targetPositions.size(), targetClasses.size());
  std::vector<std::size_t> asking;
  for (std::size_t i = 0; i < targetCount; ++i)
    if (target(targetClasses[i]))
      asking.push_back(i);
  inTakenBlocks(asking.size(), threads, SearchBlock, [&](std::size_t b, std::size_t e) {
    tree->findNearestEach(
        e - b, [&](std::size_t k) { return targetPositions[asking[b + k]]; }, box.radius,
        [&](std::size_t k, const typename Tree::Neighbour& found) {
          const std::size_t i = asking[b + k];
          targetClasses[i] = sourceClasses[found.index];
          if (box.positions)
            targetPositions[i] = found.position;
        });
  });
}

template <class Tree>
void classificationTransferOneTree(const StrongPtr<Tree>& tree, const Box& box, point& p,
                                   unsigned char& cls) {
  if (!tree)
    return;
  unsigned nearest = 0;
  double squared = 0.0;
  bool found = false;
  // The offset rule differs between the two searches, and on purpose. The plain search moves the
  // target point into source coordinates by subtracting the offset, whatever its sign. Expand
  // mode is the fallback for target points with no source point near them: it gives such a
  // point the class of whatever source point it reaches first, however far, and queries at the
  // target point as it is. Results of expand runs made so far were computed that way and must
  // come out the same, so the offset is not applied here; a caller who needs both shifts the
  // source before the transfer. For the same reason the growing radius starts at twice the
  // radius: the plain radius is never tried in this mode.
  if (!box.expand) {
    found = tree->findNearest(p - box.offset, box.radius, nearest, squared);
  } else {
    // The radius that first reaches maxradius is still tried. A radius that cannot grow (0, or
    // not finite) is tried once.
    double r = box.radius;
    for (;;) {
      const double previous = r;
      r = 2 * r;
      found = tree->findNearest(p, r, nearest, squared);
      if (found || r >= box.maxradius || !(r > previous))
        break;
    }
  }
  if (!found)
    return;
  if (box.hasAssignment)
    bandClass(box.assignment, squared, cls);
  else if (nearest < box.sourceClasses.size())
    cls = static_cast<unsigned char>(box.sourceClasses[nearest]);
  if (box.positions && nearest < box.sourceHeights.size())
    p.z = box.sourceHeights[nearest];
}

#define QUORVEL_TRANSFER_INSTANCES(TREE)                                                           \
  template void classificationTransfer<TREE>(                                                      \
      const StrongPtr<TREE>&, const ClassificationTransferParameterBox&,                           \
      const MultiArray<1, const point>&, const MultiArray<1, const unsigned char>&,                \
      const MultiArray<1, point>&, const MultiArray<1, unsigned char>&, int);                      \
  template void classificationTransferOneTree<TREE>(                                               \
      const StrongPtr<TREE>&, const ClassificationTransferParameterBox&, point&, unsigned char&);
QUORVEL_TRANSFER_INSTANCES(Vantor::OcTree<unsigned>)
QUORVEL_TRANSFER_INSTANCES(Vantor::QuadTree<unsigned>)
#undef QUORVEL_TRANSFER_INSTANCES

} // namespace Quorvel
