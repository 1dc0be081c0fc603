// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: thinning a point cloud by its "Weights" into a new grid.
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace Quorvel {

using Box = PointCloudSizeReductionParameterBox;

void PointCloudSizeReductionParameterBox::print() const {
  printFields(*this);
}

namespace {

// The indices, ascending, of the points of one fragment that the box keeps.
std::vector<std::size_t> keptPoints(const float* w, std::size_t n, const Box& box) {
  std::vector<std::size_t> kept;
  const auto unweighted = [&](std::size_t i) { return box.keep_unweighted && w[i] < 0; };
  if (!std::isnan(box.threshold)) {
    for (std::size_t i = 0; i < n; ++i)
      if (w[i] >= box.threshold || unweighted(i))
        kept.push_back(i);
    return kept;
  }
  // The share of the fragment's points, highest weights first (earlier points first on ties),
  // among the points with a weight.
  std::vector<std::size_t> weighted;
  for (std::size_t i = 0; i < n; ++i)
    if (w[i] >= 0)
      weighted.push_back(i);
  const auto wanted =
      std::min(weighted.size(), static_cast<std::size_t>(std::llround(box.keep * double(n))));
  const auto heavier = [&](std::size_t a, std::size_t b) {
    return w[a] > w[b] || (w[a] == w[b] && a < b);
  };
  std::nth_element(weighted.begin(), weighted.begin() + static_cast<std::ptrdiff_t>(wanted),
                   weighted.end(), heavier);
  weighted.resize(wanted);
  for (std::size_t i = 0; i < n; ++i)
    if (unweighted(i))
      weighted.push_back(i);
  std::sort(weighted.begin(), weighted.end());
  return weighted;
}

} // namespace

StrongPtr<Grid> reducedPointCloud(const StrongPtr<Grid>& grid, Box& box) {
  Messages log("reduceSizeOfPointCloud: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  const auto weights = positions ? findField(grid, "Weights", log, "ERROR: no f_weights") : nullptr;
  if (!weights)
    return nullptr;
  if (std::isnan(box.threshold) && !(box.keep >= 0 && box.keep <= 1)) {
    log.report("ERROR: keep must lie between 0 and 1");
    return nullptr;
  }
  const std::vector<FragmentSlot> slots = fragmentsOf(*positions);
  std::vector<std::vector<std::size_t>> kept;
  for (const FragmentSlot& slot : slots) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    const auto w = fragmentArray<float>(*weights, slot);
    if (!xyz || !w || w->size() != xyz->size()) {
      log.report("ERROR: no m_weights of every point");
      return nullptr;
    }
    kept.push_back(keptPoints(w->data(), w->size(), box));
  }
  try {
    return subsetOf(*grid, slots, kept, false);
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return nullptr;
  }
}

} // namespace Quorvel
