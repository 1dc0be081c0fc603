// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: surfaces made from clouds: the highest point per cell (DSM), points per square unit
// (density), the DSM above a ground raster (CHM), and ground heights by inverse distance.
#include "quorvel/raster/detail/cell_folds.hpp"
#include "quorvel/raster/raster.hpp"

#include "tressel/uniform_grid.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel {

namespace Raster::detail {

void idwHeights(const Basalt::ArrayVector<point>& points, Pixels& p) {
  const std::size_t cells = p.columns * p.rows, n = points.size();
  // The points sorted by pixel (a counting sort): starts[k] to starts[k + 1] are pixel k's. The
  // pixels are found on the threads, each array written before it is read.
  std::vector<std::size_t> starts(cells + 1, 0);
  Basalt::ArrayVector<std::size_t> pixel(n), order(n);
  inStaticBlocks(n, maximumThreadsMinusOne(), [&](std::size_t begin, std::size_t end) {
    for (std::size_t k = begin; k < end; ++k)
      if (!pixelOf(p, points[k], pixel[k]))
        pixel[k] = cells;
  });
  for (std::size_t k = 0; k < n; ++k)
    if (pixel[k] < cells)
      ++starts[pixel[k] + 1];
  for (std::size_t k = 0; k < cells; ++k)
    starts[k + 1] += starts[k];
  std::vector<std::size_t> next(starts.begin(), starts.end() - 1);
  for (std::size_t k = 0; k < points.size(); ++k)
    if (pixel[k] < cells)
      order[next[pixel[k]]++] = k;
  p.heights.assign(cells, std::numeric_limits<float>::quiet_NaN());
  p.types.assign(cells, NoData);
  // Each cell sums its block's points in the same order on any thread: rows on the threads.
  forEachItem(p.rows, maximumThreadsMinusOne(), [&](std::size_t j) {
    for (std::size_t i = 0; i < p.columns; ++i) {
      const double cx = p.x0 + static_cast<double>(i) * p.sizeX;
      const double cy = p.y0 + static_cast<double>(j) * p.sizeY;
      double sum = 0, weights = 0;
      bool exact = false;
      for (std::size_t y = j > 0 ? j - 1 : 0; y <= std::min(j + 1, p.rows - 1) && !exact; ++y)
        for (std::size_t x = i > 0 ? i - 1 : 0; x <= std::min(i + 1, p.columns - 1); ++x) {
          const std::size_t cell = y * p.columns + x;
          for (std::size_t s = starts[cell]; s < starts[cell + 1]; ++s) {
            const point& q = points[order[s]];
            const double squared = (q.x - cx) * (q.x - cx) + (q.y - cy) * (q.y - cy);
            if (squared < 1e-18) {
              sum = q.z, weights = 1, exact = true;
              break;
            }
            sum += q.z / squared;
            weights += 1 / squared;
          }
          if (exact)
            break;
        }
      if (weights > 0) {
        p.heights[j * p.columns + i] = static_cast<float>(sum / weights);
        p.types[j * p.columns + i] = Measured;
      }
    }
  });
}

} // namespace Raster::detail

namespace {

using Raster::Filled;
using Raster::Measured;
using Raster::NoData;
using Raster::detail::Pixels;
using Raster::detail::PointFilter;

bool hasHeight(std::uint8_t type) {
  return type == Measured || type == Filled;
}

// The pixels covering the cloud with the highest z of the box's points in each (Measured), NoData
// elsewhere, gaps filled up to box.fill_rings.
Pixels highestPerCell(const Tressel::Grid& cloud, const SurfaceParameterBox& box,
                      const std::string& what) {
  Pixels p = Raster::detail::coveringPixels(cloud, box.cell_size, what);
  const auto higher = [](float& h, float z) { h = std::max(h, z); };
  p.heights = Raster::detail::foldPerCell(cloud, PointFilter(box.classes, box.first_returns), p,
                                          -std::numeric_limits<float>::infinity(),
                                          maximumThreadsMinusOne(), higher, higher);
  p.types.resize(p.heights.size());
  for (std::size_t k = 0; k < p.heights.size(); ++k) {
    const bool measured = p.heights[k] > -std::numeric_limits<float>::infinity();
    p.types[k] = measured ? Measured : NoData;
    p.heights[k] = measured ? p.heights[k] : std::numeric_limits<float>::quiet_NaN();
  }
  Raster::detail::fillGaps(p, box.fill_rings);
  return p;
}

// A ground raster's pixels as the CHM reads them: heights (float or double cells) and types.
struct Ground {
  Tressel::UniformGridView view;
  std::vector<std::uint8_t> types;
  std::vector<double> heights;

  Ground(const Tressel::Grid& raster, const std::string& field) {
    const auto layout = Tressel::uniformGridView(raster);
    if (!layout || layout->total[2] != 1)
      throw std::runtime_error("canopy height: the ground raster is not a raster grid");
    view = *layout;
    try {
      types = Tressel::uniformCells<std::uint8_t>(raster, "CellType");
      try {
        const auto f = Tressel::uniformCells<float>(raster, field);
        heights.assign(f.begin(), f.end());
      } catch (const std::invalid_argument&) {
        heights = Tressel::uniformCells<double>(raster, field);
      }
    } catch (const std::invalid_argument& e) {
      throw std::runtime_error(std::string("canopy height: the ground raster: ") + e.what());
    }
  }

  // The ground height of the raster cell whose pixel holds (x, y); NaN where it has none.
  double at(double x, double y) const {
    const double i = std::floor((x - view.origin.x) / view.cellSize.x + 0.5);
    const double j = std::floor((y - view.origin.y) / view.cellSize.y + 0.5);
    if (!(i >= 0 && j >= 0 && i < double(view.total[0]) && j < double(view.total[1])))
      return std::numeric_limits<double>::quiet_NaN();
    const auto k = static_cast<std::size_t>(j) * view.total[0] + static_cast<std::size_t>(i);
    return hasHeight(types[k]) ? heights[k] : std::numeric_limits<double>::quiet_NaN();
  }
};

// The median height of the cell's neighbours that have one (around: room for them); false when
// none has.
bool neighbourMedian(const Pixels& p, long long i, long long j, std::vector<float>& around,
                     float& median) {
  const auto w = static_cast<long long>(p.columns), h = static_cast<long long>(p.rows);
  around.clear();
  for (long long y = std::max(0LL, j - 1); y <= std::min(h - 1, j + 1); ++y)
    for (long long x = std::max(0LL, i - 1); x <= std::min(w - 1, i + 1); ++x) {
      const auto k = static_cast<std::size_t>(y * w + x);
      if ((x != i || y != j) && hasHeight(p.types[k]))
        around.push_back(p.heights[k]);
    }
  if (around.empty())
    return false;
  std::sort(around.begin(), around.end());
  const std::size_t n = around.size();
  median = n % 2 ? around[n / 2] : (around[n / 2 - 1] + around[n / 2]) / 2;
  return true;
}

// Raises every cell lying more than depth below the median of its neighbours with heights to
// that median: the pits that gaps between crowns leave in a CHM. Rows on the threads: each cell
// reads the heights before and writes only its own.
void fillPits(Pixels& p, double depth) {
  std::vector<float> out(p.heights);
  forEachItemWith(
      p.rows, maximumThreadsMinusOne(), [] { return std::vector<float>(); },
      [&](std::vector<float>& around, std::size_t j) {
        for (std::size_t i = 0; i < p.columns; ++i) {
          const std::size_t at = j * p.columns + i;
          float median = 0;
          if (hasHeight(p.types[at]) &&
              neighbourMedian(p, static_cast<long long>(i), static_cast<long long>(j), around,
                              median) &&
              p.heights[at] < median - depth)
            out[at] = median;
        }
      });
  p.heights.swap(out);
}

} // namespace

void SurfaceParameterBox::print() const {
  printFields(*this);
}

Basalt::StrongPtr<Tressel::Grid> surfaceRaster(const Tressel::Grid& cloud,
                                               const SurfaceParameterBox& box,
                                               const std::string& coordinateSystem) {
  Pixels p = highestPerCell(cloud, box, "surface");
  if (std::none_of(p.types.begin(), p.types.end(), [](auto t) { return t == Measured; }))
    throw std::runtime_error(
        "surface: no point of the classes " +
        (box.classes.empty() ? std::string("(any)") : box.classes.to_string()) +
        (box.first_returns ? " among the first returns" : "") + " with finite coordinates");
  p.coordinateSystem = coordinateSystem;
  return Raster::detail::gridOf(p, box.fragment_cells, box.height_field);
}

Basalt::StrongPtr<Tressel::Grid> densityRaster(const Tressel::Grid& cloud,
                                               const SurfaceParameterBox& box,
                                               const std::string& coordinateSystem) {
  Pixels p = Raster::detail::coveringPixels(cloud, box.cell_size, "density");
  const auto counts = Raster::detail::foldPerCell(
      cloud, PointFilter(box.classes, box.first_returns), p, std::uint32_t{0},
      maximumThreadsMinusOne(), [](std::uint32_t& count, float) { ++count; },
      [](std::uint32_t& count, std::uint32_t more) { count += more; });
  const double area = p.sizeX * p.sizeY;
  p.heights.resize(counts.size());
  for (std::size_t k = 0; k < counts.size(); ++k)
    p.heights[k] = static_cast<float>(counts[k] / area);
  p.types.assign(counts.size(), Measured);
  p.coordinateSystem = coordinateSystem;
  return Raster::detail::gridOf(p, box.fragment_cells, box.height_field);
}

Basalt::StrongPtr<Tressel::Grid> canopyRaster(const Tressel::Grid& cloud,
                                              const Tressel::Grid& ground,
                                              const SurfaceParameterBox& box,
                                              const std::string& coordinateSystem) {
  const Ground terrain(ground, box.ground_field);
  Pixels p = highestPerCell(cloud, box, "canopy height");
  bool any = false;
  for (std::size_t j = 0, k = 0; j < p.rows; ++j)
    for (std::size_t i = 0; i < p.columns; ++i, ++k) {
      const double z = terrain.at(p.x0 + double(i) * p.sizeX, p.y0 + double(j) * p.sizeY);
      if (!hasHeight(p.types[k]) || std::isnan(z)) {
        p.types[k] = NoData;
        p.heights[k] = std::numeric_limits<float>::quiet_NaN();
        continue;
      }
      p.heights[k] = static_cast<float>(std::max(0.0, double(p.heights[k]) - z));
      any = true;
    }
  if (!any)
    throw std::runtime_error("canopy height: no cell has both points and ground under it");
  if (box.pit_depth > 0)
    fillPits(p, box.pit_depth);
  p.coordinateSystem = coordinateSystem;
  return Raster::detail::gridOf(p, box.fragment_cells, box.height_field);
}

} // namespace Quorvel
