// Quorvel: ground rasters from the ground points of a cloud: the lowest ground point of every
// cell, gaps filled from the nearest ring of measured cells.
#include "quorvel/core/core.hpp"
#include "quorvel/raster/detail/pixels.hpp"
#include "quorvel/raster/raster.hpp"

#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel {

using Raster::Filled;
using Raster::Measured;
using Raster::NoData;

namespace {

using Raster::detail::Pixels;

constexpr double Tolerance = 1e-9;
// More cells than this is a cell size far too small for the cloud (or a stray point far away).
constexpr double LargestRaster = 1u << 30;

// The cloud's extent in whole cells.
struct Extent {
  double lowX = std::numeric_limits<double>::infinity(), lowY = lowX;
  double highX = -lowX, highY = -lowX;
};

// Calls f(p, ground) for every finite point of the cloud, ground telling whether its class is
// one of the classes.
template <class F>
void forEachPoint(const Tressel::Grid& cloud, const Vantor::MultiRange<double>& classes, F&& f) {
  auto positions = cloud.CartesianPositions();
  auto rep = cloud.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto cls = rep ? rep->findField("Classification") : nullptr;
  if (!positions)
    return;
  std::array<bool, 256> ground{};
  for (int c = 0; c < 256; ++c)
    ground[c] = classes.contains(c, Tolerance);
  for (const FragmentSlot& slot : fragmentsOf(*positions)) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    if (!xyz)
      continue;
    const auto c = cls ? fragmentArray<unsigned char>(*cls, slot) : nullptr;
    const bool classified = c && c->size() == xyz->size();
    for (std::size_t i = 0; i < xyz->size(); ++i) {
      const point& p = (*xyz)[i];
      if (std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z))
        f(p, classified && ground[(*c)[i]]);
    }
  }
}

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

// Fills every empty cell from the measured cells of the nearest ring (Chebyshev distance up to
// rings) that holds any, weighted by the inverse squared distance.
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
  const auto rows = static_cast<long long>(p.rows);
#pragma omp parallel for schedule(dynamic, 16)
  for (long long row = 0; row < rows; ++row)
    for (std::size_t i = 0, j = static_cast<std::size_t>(row); i < p.columns; ++i) {
      const std::size_t at = j * p.columns + i;
      if (p.types[at] != Measured &&
          ringMean(p, m, static_cast<long long>(i), static_cast<long long>(j), offsets, starts,
                   filled[at]))
        types[at] = Filled;
    }
  p.heights.swap(filled);
  p.types.swap(types);
}

// Lowers every cell's height (infinity at first) to the lowest z of the ground points in it.
// Cells and heights are gathered in blocks first, so that the cells of points in any order are
// fetched ahead of their update.
void lowestPerCell(const Tressel::Grid& cloud, const Vantor::MultiRange<double>& classes,
                   const Extent& e, double c, Pixels& p) {
  constexpr std::size_t Block = 4096, Ahead = 32;
  std::vector<std::pair<std::size_t, float>> cells;
  cells.reserve(Block);
  float* heights = p.heights.data();
  const auto lower = [&] {
    for (std::size_t k = 0; k < cells.size(); ++k) {
      if (k + Ahead < cells.size())
        __builtin_prefetch(heights + cells[k + Ahead].first, 1);
      float& h = heights[cells[k].first];
      h = std::min(h, cells[k].second);
    }
    cells.clear();
  };
  forEachPoint(cloud, classes, [&](const point& q, bool ground) {
    if (!ground)
      return;
    const double gx = std::floor(q.x / c) - e.lowX, gy = std::floor(q.y / c) - e.lowY;
    // A stored box that a point lies outside of (a changed cloud) must not move it off the grid.
    if (gx >= 0 && gy >= 0 && gx < static_cast<double>(p.columns) &&
        gy < static_cast<double>(p.rows))
      cells.emplace_back(static_cast<std::size_t>(gy) * p.columns + static_cast<std::size_t>(gx),
                         static_cast<float>(q.z));
    if (cells.size() == Block)
      lower();
  });
  lower();
}

} // namespace

void GroundRasterParameterBox::print() const {
  printField("cell size: ", cell_size);
  printField("classes: ", classes);
  printField("fill rings: ", fill_rings);
  printField("fragment cells: ", fragment_cells);
  printField("height field: ", height_field);
}

Basalt::StrongPtr<Tressel::Grid> groundRaster(const Tressel::Grid& cloud,
                                              const GroundRasterParameterBox& box,
                                              const std::string& coordinateSystem) {
  const double c = box.cell_size;
  if (!(c > 0) || !std::isfinite(c))
    throw std::runtime_error("ground raster: the cell size must be a positive number");
  // The extent from the fragments' boxes (LAS and bundle readers store them), so that the
  // points are read once.
  Extent e;
  bool anyGround = false;
  if (auto positions = cloud.CartesianPositions())
    for (const FragmentSlot& slot : fragmentsOf(*positions))
      if (const auto box = fragmentBBox(slot); box && !box->empty()) {
        e.lowX = std::min(e.lowX, std::floor(box->min().x / c));
        e.highX = std::max(e.highX, std::floor(box->max().x / c));
        e.lowY = std::min(e.lowY, std::floor(box->min().y / c));
        e.highY = std::max(e.highY, std::floor(box->max().y / c));
      }
  if (!(e.lowX <= e.highX))
    throw std::runtime_error("ground raster: the cloud has no point with finite coordinates");
  if ((e.highX - e.lowX + 1) * (e.highY - e.lowY + 1) > LargestRaster)
    throw std::runtime_error("ground raster: " + std::to_string(e.highX - e.lowX + 1) + " x " +
                             std::to_string(e.highY - e.lowY + 1) +
                             " cells: the cell size is far too small for the points' extent");
  Pixels p;
  p.columns = static_cast<std::size_t>(e.highX - e.lowX) + 1;
  p.rows = static_cast<std::size_t>(e.highY - e.lowY) + 1;
  p.x0 = (e.lowX + 0.5) * c;
  p.y0 = (e.lowY + 0.5) * c;
  p.sizeX = p.sizeY = c;
  p.heights.assign(p.columns * p.rows, std::numeric_limits<float>::infinity());
  lowestPerCell(cloud, box.classes, e, c, p);
  // A cell is measured when a point lowered it from infinity.
  p.types.resize(p.heights.size());
  for (std::size_t k = 0; k < p.heights.size(); ++k) {
    const bool measured = p.heights[k] < std::numeric_limits<float>::infinity();
    anyGround = anyGround || measured;
    p.types[k] = measured ? Measured : NoData;
    p.heights[k] = measured ? p.heights[k] : std::numeric_limits<float>::quiet_NaN();
  }
  if (!anyGround)
    throw std::runtime_error("ground raster: no point of the classes " + box.classes.to_string() +
                             " (with finite coordinates and a \"Classification\")");
  fillGaps(p, box.fill_rings);
  p.coordinateSystem = coordinateSystem;
  return Raster::detail::gridOf(p, box.fragment_cells, box.height_field);
}

} // namespace Quorvel
