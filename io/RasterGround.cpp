// Quorvel: ground rasters from the ground points of a cloud: the lowest ground point of every
// cell, gaps filled from the nearest ring of measured cells.
#include "io/detail/Raster.hpp"

#include "quorvel/core/core.hpp"

#include <cmath>
#include <limits>

namespace Quorvel::Raster {

namespace {

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

// Fills every empty cell from the measured cells of the nearest ring (Chebyshev distance up to
// rings) that holds any, weighted by the inverse squared distance.
void fillGaps(detail::Pixels& p, int rings) {
  const auto w = static_cast<long long>(p.columns), h = static_cast<long long>(p.rows);
  std::vector<float> filled(p.heights);
  std::vector<std::uint8_t> types(p.types);
  for (long long j = 0; j < h; ++j)
    for (long long i = 0; i < w; ++i) {
      if (p.types[static_cast<std::size_t>(j * w + i)] == Measured)
        continue;
      for (long long r = 1; r <= rings; ++r) {
        double sum = 0, weights = 0;
        for (long long dj = -r; dj <= r; ++dj)
          for (long long di = -r; di <= r; di += (dj == -r || dj == r) ? 1 : 2 * r) {
            const long long x = i + di, y = j + dj;
            if (x < 0 || y < 0 || x >= w || y >= h ||
                p.types[static_cast<std::size_t>(y * w + x)] != Measured)
              continue;
            const double weight = 1.0 / static_cast<double>(di * di + dj * dj);
            sum += weight * p.heights[static_cast<std::size_t>(y * w + x)];
            weights += weight;
          }
        if (weights > 0) {
          filled[static_cast<std::size_t>(j * w + i)] = static_cast<float>(sum / weights);
          types[static_cast<std::size_t>(j * w + i)] = Filled;
          break;
        }
      }
    }
  p.heights.swap(filled);
  p.types.swap(types);
}

} // namespace

Basalt::StrongPtr<Tressel::Grid> groundRaster(const Tressel::Grid& cloud,
                                              const GroundRasterSettings& settings) {
  const double c = settings.cellSize;
  if (!(c > 0) || !std::isfinite(c))
    throw Las::Error("ground raster: the cell size must be a positive number");
  Extent e;
  bool anyGround = false;
  forEachPoint(cloud, settings.classes, [&](const point& p, bool ground) {
    anyGround = anyGround || ground;
    e.lowX = std::min(e.lowX, std::floor(p.x / c));
    e.highX = std::max(e.highX, std::floor(p.x / c));
    e.lowY = std::min(e.lowY, std::floor(p.y / c));
    e.highY = std::max(e.highY, std::floor(p.y / c));
  });
  if (!anyGround)
    throw Las::Error("ground raster: no point of the classes " + settings.classes.to_string() +
                     " (with finite coordinates and a \"Classification\")");
  if ((e.highX - e.lowX + 1) * (e.highY - e.lowY + 1) > LargestRaster)
    throw Las::Error("ground raster: " + std::to_string(e.highX - e.lowX + 1) + " x " +
                     std::to_string(e.highY - e.lowY + 1) +
                     " cells: the cell size is far too small for the points' extent");
  detail::Pixels p;
  p.columns = static_cast<std::size_t>(e.highX - e.lowX) + 1;
  p.rows = static_cast<std::size_t>(e.highY - e.lowY) + 1;
  p.x0 = (e.lowX + 0.5) * c;
  p.y0 = (e.lowY + 0.5) * c;
  p.sizeX = p.sizeY = c;
  p.types.assign(p.columns * p.rows, NoData);
  p.heights.assign(p.columns * p.rows, std::numeric_limits<float>::infinity());
  forEachPoint(cloud, settings.classes, [&](const point& q, bool ground) {
    if (!ground)
      return;
    const auto i = static_cast<std::size_t>(std::floor(q.x / c) - e.lowX);
    const auto j = static_cast<std::size_t>(std::floor(q.y / c) - e.lowY);
    float& h = p.heights[j * p.columns + i];
    h = std::min(h, static_cast<float>(q.z));
    p.types[j * p.columns + i] = Measured;
  });
  for (std::size_t k = 0; k < p.heights.size(); ++k)
    if (p.types[k] != Measured)
      p.heights[k] = std::numeric_limits<float>::quiet_NaN();
  fillGaps(p, settings.fillRings);
  p.coordinateSystem = coordinateSystemOf(cloud);
  return detail::gridOf(p, settings.fragmentCells, settings.heightField);
}

} // namespace Quorvel::Raster
