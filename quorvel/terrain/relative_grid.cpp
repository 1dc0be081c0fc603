// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the terrain measures over every fragment of a cloud.
#include "quorvel/core/core.hpp"
#include "quorvel/terrain/terrain.hpp"

namespace Quorvel {

std::string relativeHeightAndBelows(const StrongPtr<Grid>& grid, double squareHalfWidth,
                                    const MultiRange<double>* classes) {
  const StrongPtr<Field> positions = grid ? grid->CartesianPositions() : nullptr;
  if (!positions)
    return "the cloud has no positions";
  StrongPtr<Field> classField;
  if (classes && !(classField = findOptionalField(grid, "Classification")))
    return "classes need a \"Classification\" field";
  const StrongPtr<Field> heights = outputField<float>(grid, "RelativeHeight");
  const StrongPtr<Field> belows = outputField<unsigned char>(grid, "RelativeBelows");
  if (!heights || !belows)
    return "\"RelativeHeight\" or \"RelativeBelows\" exists with another type";
  Tressel::RelativeHeightBox height;
  Tressel::RelativeBelowsBox below;
  height.squareHalfWidth = below.squareHalfWidth = squareHalfWidth;
  // The two measures of a fragment are independent and share the threads as splitThreads says:
  // side by side where each has threads of its own (their one-thread index builds then overlap),
  // else one after the other with all the threads.
  const int threads = maximumThreadsMinusOne();
  const ThreadSplit split = splitThreads(threads, 2);
  height.threads = below.threads = split.inner;
  for (const FragmentSlot& slot : fragmentsOf(*positions)) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    const auto bbox = xyz ? fragmentBBox(slot) : nullptr;
    if (!bbox)
      continue; // nothing to compute: no positions, or none of them finite
    const auto cls = classField ? fragmentArray<unsigned char>(*classField, slot) : nullptr;
    if (classField && (!cls || cls->size() != xyz->size()))
      return "a fragment has no class of every point";
    FragmentOutput<float> h(heights, slot.id, xyz->size(), 0.0f, threads);
    FragmentOutput<unsigned char> b(belows, slot.id, xyz->size(), 0, threads);
    forEachItem(2, split.outer, [&](std::size_t measure) {
      if (measure == 0)
        cls ? height.compute(h.view(), xyz->view(), cls->view(), *classes, bbox)
            : height.compute(h.view(), xyz->view(), bbox);
      else
        cls ? below.compute(b.view(), xyz->view(), cls->view(), bbox)
            : below.compute(b.view(), xyz->view(), bbox);
    });
    h.commit();
    b.commit();
  }
  return "";
}

} // namespace Quorvel
