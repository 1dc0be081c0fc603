// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: thinning a point cloud by its "Weights" into a new grid.
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"

#include "basalt/radix_sort.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <numeric>

namespace Quorvel {

using Box = PointCloudSizeReductionParameterBox;

void PointCloudSizeReductionParameterBox::print() const {
  printFields(*this);
}

namespace {

// The indices, ascending, of the points i in [0, n) that keep(i) accepts, listed on the threads.
template <class Keep>
std::vector<std::size_t> indicesWhere(std::size_t n, int threads, const Keep& keep) {
  std::vector<std::size_t> found;
  packInBlocks(
      n, threads, keep, [&](std::size_t count) { found.resize(count); },
      [&](std::size_t i, std::size_t at) { found[at] = i; });
  return found;
}

// How many of the points i in [0, n) keep(i) accepts, counted on the threads.
template <class Keep>
std::size_t countWhere(std::size_t n, int threads, const Keep& keep) {
  const std::size_t blocks = Basalt::blocksFor(n, threads);
  std::vector<std::size_t> counts(blocks);
  Basalt::inParts(blocks, threads, [&](std::size_t k, int) {
    for (std::size_t i = n * k / blocks; i < n * (k + 1) / blocks; ++i)
      counts[k] += keep(i) ? 1 : 0;
  });
  return std::accumulate(counts.begin(), counts.end(), std::size_t{0});
}

// The indices, ascending, of the points of one fragment that the box keeps.
std::vector<std::size_t> keptPoints(const float* w, std::size_t n, const Box& box, int threads) {
  const auto unweighted = [&](std::size_t i) { return box.keep_unweighted && w[i] < 0; };
  if (!std::isnan(box.threshold))
    return indicesWhere(n, threads,
                        [&](std::size_t i) { return w[i] >= box.threshold || unweighted(i); });
  // The share of the fragment's points, highest weights first (earlier points first on ties),
  // among the points with a weight. A point's place in that order is its heaviness, then its
  // index: heaviness is the weight's order reversed (-0 as +0, the two equal), 2^32 for a point
  // without a weight (negative or NaN), which comes after them all.
  const auto heaviness = [&](std::size_t i) -> std::uint64_t {
    if (!(w[i] >= 0))
      return std::uint64_t{1} << 32;
    return static_cast<std::uint32_t>(~Basalt::orderedBits(w[i] + 0.0f));
  };
  const std::size_t weighted = countWhere(n, threads, [&](std::size_t i) { return w[i] >= 0; });
  const auto wanted =
      std::min(weighted, static_cast<std::size_t>(std::llround(box.keep * double(n))));
  if (wanted == 0)
    return indicesWhere(n, threads, unweighted);
  // The last point kept: its heaviness, the count of heavier points, and its index among those
  // as heavy, which are kept in index order up to it.
  const std::uint64_t last = Basalt::radixSelect(n, wanted - 1, 33, heaviness, threads);
  const std::size_t heavier =
      countWhere(n, threads, [&](std::size_t i) { return heaviness(i) < last; });
  const std::uint64_t lastIndex = Basalt::radixSelect(
      n, wanted - heavier - 1, std::bit_width(n),
      [&](std::size_t i) { return heaviness(i) == last ? i : n; }, threads);
  return indicesWhere(n, threads, [&](std::size_t i) {
    const std::uint64_t h = heaviness(i);
    return h < last || (h == last && i <= lastIndex) || unweighted(i);
  });
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
    kept.push_back(keptPoints(w->data(), w->size(), box, maximumThreadsMinusOne()));
  }
  try {
    return subsetOf(*grid, slots, kept, false);
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return nullptr;
  }
}

} // namespace Quorvel
