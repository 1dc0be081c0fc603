// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: reduction weights of point clouds. A first pass weighs fragment after fragment and
// notes each fragment's largest and median weight; a second pass divides every weight by the
// median of the fragments' medians, so that a typical point weighs about 1.
#include "quorvel/features/detail/weights.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "quorvel/spatial/spatial.hpp"

#include "basalt/radix_sort.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Quorvel {

using Box = PointCloudReductionParameterBox;
using Vantor::PhysicalSpace::vector;

void PointCloudReductionParameterBox::print() const {
  printFields(*this);
}

namespace {

// The point loops of both passes.
template <class Body>
void forEachPoint(std::size_t n, const Body& body) {
  Quorvel::forEachPoint(n, maximumThreadsMinusOne(), CheapPointGrain, body);
}

struct Fields {
  StrongPtr<Field> positions, normals, planarity, weights;
};

// The fragment's normals, unit length where they have one and turned upward.
Basalt::ArrayVector<vector> upwardNormals(const MemArray<1, vector>& normals) {
  Basalt::ArrayVector<vector> out(normals.size()); // each written once, below
  forEachPoint(out.size(), [&](std::size_t i) {
    vector& v = out[i] = normals[i];
    const double length2 = v.x * v.x + v.y * v.y + v.z * v.z;
    if (length2 > 0)
      v = v * (1.0 / std::sqrt(length2));
    if (v.z < 0)
      v = -v;
  });
  return out;
}

// The weight at index n / 2 of the sorted weights (n > 0), found where they lie, on the threads.
float medianOf(const float* w, std::size_t n, int threads) {
  const std::uint64_t bits = Basalt::radixSelect(
      n, n / 2, 32, [&](std::size_t i) { return Basalt::orderedBits(w[i]); }, threads);
  return Basalt::fromOrderedBits(static_cast<std::uint32_t>(bits));
}

// The first pass over one fragment: its weights, stored, and its largest and median weight
// noted in the box.
void weighFragment(const Fields& f, const FragmentSlot& slot, Box& box, Messages& log) {
  const auto xyz = fragmentArray<point>(*f.positions, slot);
  const auto normals = fragmentArray<vector>(*f.normals, slot);
  const auto planarity = fragmentArray<float>(*f.planarity, slot);
  if (!xyz || !normals || !planarity || normals->size() != xyz->size() ||
      planarity->size() != xyz->size())
    return log.report("ERROR: no m_vertices, m_normalvector or m_planarity");
  const auto bbox = xyz->size() > 0 ? fragmentBBox(slot) : nullptr;
  if (!bbox)
    return log.report("ERROR, no fragment_bbox");
  Tarrow::OcTreeStd<unsigned, point, 3> tree(bbox->min(), bbox->max(), 64);
  const std::size_t n = xyz->size();
  const int threads = maximumThreadsMinusOne();
  tree.insertEach(
      n, threads, [](std::size_t) { return true; }, [&](unsigned i) { return (*xyz)[i]; });
  const Basalt::ArrayVector<vector> upward = upwardNormals(*normals);
  const detail::WeightInputs in{xyz->data(),       upward.data(),
                                planarity->data(), tree,
                                box.radius,        static_cast<std::size_t>(box.neighbours)};
  // Points outside the tree (no finite position) have no neighbours: -1 like any such point.
  FragmentOutput<float> weights(f.weights, slot.id, n, -1.0f, threads);
  float* w = weights.data();
  if (weights.reused())
    forEachPoint(n, [&](std::size_t i) { w[i] = -1.0f; });
  // The points in runs of the tree's leaves, so that consecutive queries touch the same nodes;
  // each weight is the same in any order. Many more runs than threads even out their costs.
  const LeafRuns<unsigned> runs(tree, 8 * static_cast<std::size_t>(threads));
  forEachItemWith(
      runs.runs(), threads, [] { return detail::WeightScratch(); },
      [&](detail::WeightScratch& scratch, std::size_t run) {
        runs.forEachIn(run, [&](unsigned i) { w[i] = detail::weightOfPoint(in, i, scratch); });
      });
  box.fragmentMaxWeights.push_back(*std::max_element(w, w + n));
  weights.commit();
  box.fragmentMedianWeights.push_back(medianOf(w, n, threads));
}

// The second pass: every fragment's weights divided by the median.
void normalise(const Fields& f, const std::vector<FragmentSlot>& fragments, float median,
               Messages& log) {
  for (const FragmentSlot& slot : fragments) {
    const auto weights = fragmentArray<float>(*f.weights, slot);
    if (!weights) {
      log.report("ERROR: no m_weight found");
      continue;
    }
    FragmentOutput<float> out(f.weights, slot.id, weights->size()); // in place
    float* w = out.data();
    forEachPoint(out.size(), [&](std::size_t i) { w[i] /= median; });
    out.commit();
  }
}

} // namespace

std::string computePointCloudReductionWeights(const StrongPtr<Grid>& grid, Box& box) {
  Messages log("PointCloudReductionWithWeights: ", &box.message);
  Fields f;
  if (!(f.positions = findPositions(grid, log, "ERROR: no f_vertices")) ||
      !(f.normals = findField(grid, "NormalVector", log, "ERROR: no f_normalvector")) ||
      !(f.planarity = findField(grid, "Planarity", log, "ERROR: no f_planarity")))
    return "";
  if (box.neighbours < 1) {
    log.report("ERROR: neighbours must be at least 1");
    return "";
  }
  if (!(f.weights = outputField<float>(grid, "Weights"))) {
    log.report("ERROR: field Weights exists with another element type");
    return "";
  }
  const std::vector<FragmentSlot> fragments = fragmentsOf(*f.positions);
  std::size_t counter = 0;
  for (const FragmentSlot& slot : fragments) {
    Basalt::Console::write("_____ computing frag no. " + std::to_string(++counter) + " / " +
                           std::to_string(fragments.size()) + "\r");
    weighFragment(f, slot, box, log);
  }
  if (box.fragmentMedianWeights.empty()) {
    log.report("ERROR: no fragment could be weighted");
    return "";
  }
  Basalt::Console() << "max weight: "
                    << *std::max_element(box.fragmentMaxWeights.begin(),
                                         box.fragmentMaxWeights.end());
  std::vector<float> medians = box.fragmentMedianWeights;
  std::sort(medians.begin(), medians.end());
  const float median = medians[medians.size() / 2];
  Basalt::Console() << "median weight: " << median;
  // A zero median (most points weigh 0: sparse or perfectly flat ground) would turn every weight
  // into an infinity; the weights then stay as computed.
  if (median == 0.0f || !std::isfinite(median)) {
    log.report("ERROR: median weight 0, weights left unnormalised");
    return "";
  }
  normalise(f, fragments, median, log);
  return "";
}

} // namespace Quorvel
