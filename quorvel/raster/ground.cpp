// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: ground rasters from the ground points of a cloud: the lowest ground point of every
// cell, a TIN or inverse-distance weights; gaps filled from the nearest ring of measured cells.
#include "quorvel/core/core.hpp"
#include "quorvel/raster/detail/cell_folds.hpp"
#include "quorvel/raster/raster.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel::Raster::detail {

namespace {

// A cell offset of a ring and its weight, the inverse squared distance.
struct Offset {
  long long di, dj;
  double weight;
};

// The offsets of the rings 1 to rings, ring after ring; starts[r - 1] to starts[r] is ring r.
std::vector<Offset> ringOffsets(int rings, std::vector<std::size_t>& starts) {
  std::vector<Offset> out;
  starts.assign(1, 0);
  for (long long r = 1; r <= rings; ++r) {
    for (long long dj = -r; dj <= r; ++dj)
      for (long long di = -r; di <= r; di += (dj == -r || dj == r) ? 1 : 2 * r)
        out.push_back({di, dj, 1.0 / static_cast<double>(di * di + dj * dj)});
    starts.push_back(out.size());
  }
  return out;
}

// The cells as the ring means read them: the height where measured and 1 as its weight, 0 and 0
// elsewhere, so that a mean adds every cell of a ring without a branch.
struct Measures {
  std::vector<float> heights;
  std::vector<double> measured;
};

// The weighted mean of the measured cells of the nearest ring around (i, j) that holds any;
// false when none within the rings does.
bool ringMean(const Pixels& p, const Measures& m, long long i, long long j,
              const std::vector<Offset>& offsets, const std::vector<std::size_t>& starts,
              float& out) {
  const auto w = static_cast<long long>(p.columns), h = static_cast<long long>(p.rows);
  const auto rings = static_cast<long long>(starts.size()) - 1;
  // Away from the edges no offset needs a bounds test.
  const bool inside = i >= rings && j >= rings && i + rings < w && j + rings < h;
  const float* heights = m.heights.data();
  const double* measured = m.measured.data();
  for (std::size_t r = 1; r < starts.size(); ++r) {
    double sum = 0, weights = 0;
    for (std::size_t k = starts[r - 1]; k < starts[r]; ++k) {
      const long long x = i + offsets[k].di, y = j + offsets[k].dj;
      if (!inside && (x < 0 || y < 0 || x >= w || y >= h))
        continue;
      const auto at = static_cast<std::size_t>(y * w + x);
      // Cells without a measure add exact zeros: the sums are those of the measured cells.
      sum += offsets[k].weight * heights[at];
      weights += offsets[k].weight * measured[at];
    }
    if (weights > 0) {
      out = static_cast<float>(sum / weights);
      return true;
    }
  }
  return false;
}

} // namespace

void fillGaps(Pixels& p, int rings) {
  std::vector<std::size_t> starts;
  const std::vector<Offset> offsets = ringOffsets(rings, starts);
  std::vector<float> filled(p.heights);
  std::vector<std::uint8_t> types(p.types);
  Measures m{std::vector<float>(p.heights.size()), std::vector<double>(p.heights.size())};
  for (std::size_t k = 0; k < p.heights.size(); ++k)
    if (p.types[k] == Measured) {
      m.heights[k] = p.heights[k];
      m.measured[k] = 1;
    }
  // Rows are independent: each reads the measured cells and writes its own row of the copies.
  forEachItem(p.rows, maximumThreadsMinusOne(), [&](std::size_t j) {
    for (std::size_t i = 0; i < p.columns; ++i) {
      const std::size_t at = j * p.columns + i;
      if (p.types[at] != Measured &&
          ringMean(p, m, static_cast<long long>(i), static_cast<long long>(j), offsets, starts,
                   filled[at]))
        types[at] = Filled;
    }
  });
  p.heights.swap(filled);
  p.types.swap(types);
}

} // namespace Quorvel::Raster::detail

namespace Quorvel {

using Raster::Filled;
using Raster::Measured;
using Raster::NoData;

namespace {

using Raster::detail::Pixels;
using Raster::detail::PointFilter;

// The lowest z per cell: Measured where a point lowered it from infinity, NoData elsewhere.
void lowestGround(const Tressel::Grid& cloud, const PointFilter& filter, Pixels& p) {
  const auto lower = [](float& h, float z) { h = std::min(h, z); };
  p.heights = Raster::detail::foldPerCell(cloud, filter, p, std::numeric_limits<float>::infinity(),
                                          maximumThreadsMinusOne(), lower, lower);
  p.types.resize(p.heights.size());
  for (std::size_t k = 0; k < p.heights.size(); ++k) {
    const bool measured = p.heights[k] < std::numeric_limits<float>::infinity();
    p.types[k] = measured ? Measured : NoData;
    p.heights[k] = measured ? p.heights[k] : std::numeric_limits<float>::quiet_NaN();
  }
}

// The points the filter takes, in the cloud's order, gathered on the threads.
Basalt::ArrayVector<point> pointsOf(const Tressel::Grid& cloud, const PointFilter& filter) {
  Basalt::ArrayVector<point> out;
  for (const PointFilter::Span& s : filter.spansOf(cloud)) {
    const std::size_t before = out.size();
    packInBlocks(
        s.size(), maximumThreadsMinusOne(), [&](std::size_t i) { return filter.takes(s, i); },
        [&](std::size_t count) { out.resize(before + count); },
        [&](std::size_t i, std::size_t at) { out[before + at] = s.xyz->data()[i]; });
  }
  return out;
}

} // namespace

void GroundRasterParameterBox::print() const {
  printFields(*this);
}

Basalt::StrongPtr<Tressel::Grid> groundRaster(const Tressel::Grid& cloud,
                                              const GroundRasterParameterBox& box,
                                              const std::string& coordinateSystem) {
  if (box.method != "lowest" && box.method != "tin" && box.method != "idw")
    throw std::runtime_error("ground raster: the method \"" + box.method +
                             "\" is none of lowest, tin, idw");
  Pixels p = Raster::detail::coveringPixels(cloud, box.cell_size, "ground raster");
  const PointFilter ground(box.classes, false);
  if (box.method == "lowest")
    lowestGround(cloud, ground, p);
  else if (box.method == "tin")
    Raster::detail::tinHeights(pointsOf(cloud, ground), p);
  else
    Raster::detail::idwHeights(pointsOf(cloud, ground), p);
  if (std::find(p.types.begin(), p.types.end(), Measured) == p.types.end())
    throw std::runtime_error("ground raster: no point of the classes " + box.classes.to_string() +
                             " (with finite coordinates and a \"Classification\")");
  Raster::detail::fillGaps(p, box.fill_rings);
  p.coordinateSystem = coordinateSystem;
  return Raster::detail::gridOf(p, box.fragment_cells, box.height_field);
}

} // namespace Quorvel
