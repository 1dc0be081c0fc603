// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the ground filter. The whole cloud is gathered into one minimum surface, so that the
// result does not depend on the fragments it is stored in; the raster steps are the kernels of
// detail/morphology.hpp.
#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/morphology.hpp"
#include "quorvel/terrain/terrain.hpp"

#include "basalt/array_allocator.hpp"
#include "basalt/text.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <tuple>
#include <utility>

namespace Quorvel {

using detail::HeightGrid;

void GroundFilterParameterBox::print() const {
  printFields(*this);
}

namespace {

// More cells than this is a cell size far too small for the cloud (or a stray point far away).
constexpr double LargestGrid = 1u << 28;
// The class of ground points, and of the points the filter finds not to be ground.
constexpr unsigned char Ground = 2, Unassigned = 1;
// Low outliers: a cell more than LowOutlierDepth (units of the positions) below every other cell
// within LowOutlierReach cells is dropped from the minimum surface.
constexpr double LowOutlierDepth = 5.0;
constexpr std::size_t LowOutlierReach = 3;

// The points that take part, relative to the lowest x and y among them, and the largest x and
// y after the shift.
struct Gathered {
  Basalt::ArrayVector<double> x, y, z;
  double originX = 0, originY = 0, spanX = 0, spanY = 0;
  // Each fragment's points that take part before each of its blocks on the threads, and in all
  // (Basalt::countInBlocks), so that the decisions go back by the same blocks in one pass.
  std::vector<std::vector<std::size_t>> blocks;
};

// The classes of a fragment as a table lookup: which take part.
using ClassTable = std::array<bool, 256>;

ClassTable tableOf(const MultiRange<double>& classes) {
  ClassTable table{};
  for (int c = 0; c < 256; ++c)
    table[static_cast<std::size_t>(c)] = classes.contains(c, RangeTolerance);
  return table;
}

bool takesPart(const point& p, unsigned char cls, const ClassTable& ignored) {
  return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z) && !ignored[cls];
}

// Calls f(positions, classes-or-null, output) for every fragment with positions, in layout order.
template <class F>
void forEachFragmentOf(const Field& positions, const StrongPtr<Field>& classes, F&& f) {
  for (const FragmentSlot& slot : fragmentsOf(positions)) {
    const auto xyz = fragmentArray<point>(positions, slot);
    if (!xyz)
      continue;
    const auto cls = fragmentArray<unsigned char>(*classes, slot);
    f(slot, *xyz, cls && cls->size() == xyz->size() ? cls.get() : nullptr);
  }
}

// The smallest x and y of the gathered points, found by blocks on the threads.
std::pair<double, double> lowestXY(const Gathered& g, int threads) {
  std::vector<std::pair<double, double>> lowest(static_cast<std::size_t>(std::max(threads, 1)),
                                                {HUGE_VAL, HUGE_VAL});
  inStaticBlocks(g.x.size(), threads, [&](std::size_t begin, std::size_t end, std::size_t part) {
    auto [x, y] = lowest[part];
    for (std::size_t k = begin; k < end; ++k) {
      x = std::min(x, g.x[k]);
      y = std::min(y, g.y[k]);
    }
    lowest[part] = {x, y};
  });
  auto [x, y] = lowest.front();
  for (const auto& [bx, by] : lowest) {
    x = std::min(x, bx);
    y = std::min(y, by);
  }
  return {x, y};
}

// The points in fragment and index order, each fragment packed on the threads into its place.
Gathered gather(const Field& positions, const StrongPtr<Field>& classes, const ClassTable& ignored,
                int threads) {
  Gathered g;
  std::size_t most = 0, count = 0;
  forEachFragmentOf(positions, classes,
                    [&](const FragmentSlot&, const MemArray<1, point>& xyz,
                        const MemArray<1, unsigned char>*) { most += xyz.size(); });
  // Room for every point, so that no fragment moves the points before it.
  for (auto* axis : {&g.x, &g.y, &g.z})
    axis->reserve(most);
  forEachFragmentOf(
      positions, classes,
      [&](const FragmentSlot&, const MemArray<1, point>& xyz,
          const MemArray<1, unsigned char>* cls) {
        const auto takes = [&](std::size_t i) {
          return takesPart(xyz[i], cls ? (*cls)[i] : 0, ignored);
        };
        g.blocks.push_back(Basalt::countInBlocks(
            xyz.size(), static_cast<std::size_t>(std::max(threads, 1)), threads, takes));
        for (auto* axis : {&g.x, &g.y, &g.z})
          axis->resize(count + g.blocks.back().back()); // left unwritten until placed
        Basalt::placeInBlocks(xyz.size(), g.blocks.back(), threads, takes,
                              [&](std::size_t i, std::size_t at) {
                                g.x[count + at] = xyz[i].x;
                                g.y[count + at] = xyz[i].y;
                                g.z[count + at] = xyz[i].z;
                              });
        count += g.blocks.back().back();
      });
  if (count == 0)
    throw std::runtime_error("no point with finite coordinates outside the ignored classes");
  std::tie(g.originX, g.originY) = lowestXY(g, threads);
  std::vector<std::pair<double, double>> spans(static_cast<std::size_t>(std::max(threads, 1)),
                                               {-HUGE_VAL, -HUGE_VAL});
  inStaticBlocks(count, threads, [&](std::size_t begin, std::size_t end, std::size_t part) {
    auto [x, y] = spans[part];
    for (std::size_t k = begin; k < end; ++k) {
      x = std::max(x, g.x[k] -= g.originX);
      y = std::max(y, g.y[k] -= g.originY);
    }
    spans[part] = {x, y};
  });
  g.spanX = g.spanY = -HUGE_VAL;
  for (const auto& [x, y] : spans) {
    g.spanX = std::max(g.spanX, x);
    g.spanY = std::max(g.spanY, y);
  }
  return g;
}

std::size_t cellIndex(double v, double cell, std::size_t count) {
  return std::min(static_cast<std::size_t>(v / cell), count - 1);
}

// The lowest point of every cell, NaN where a cell holds none; blocks of points on the threads
// (foldInBlocks: std::min keeps the earlier of equal heights, so the cells are one thread's).
HeightGrid minimumSurface(const Gathered& g, double smallestCell, int threads) {
  const double spanX = g.spanX, spanY = g.spanY;
  const std::size_t n = g.x.size();
  // Sparse data (fewer points than cells) gets cells of about one point each, so that the
  // surface is made of points rather than of filled holes.
  const double cell = std::max(smallestCell, std::sqrt(spanX * spanY / static_cast<double>(n)));
  const double columns = std::floor(spanX / cell) + 1, rows = std::floor(spanY / cell) + 1;
  if (columns * rows > LargestGrid)
    throw std::runtime_error(Basalt::format(
        "%.0f x %.0f cells of %g: the cell size is far too small for the points' extent", columns,
        rows, cell));
  HeightGrid grid;
  grid.columns = static_cast<std::size_t>(columns);
  grid.rows = static_cast<std::size_t>(rows);
  grid.cell = cell;
  const auto lower = [](float& low, float z) { low = std::min(low, z); };
  grid.z = foldInBlocks(
      n, grid.columns * grid.rows, std::numeric_limits<float>::infinity(), threads,
      [&](float* z, std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
          lower(z[cellIndex(g.y[i], cell, grid.rows) * grid.columns +
                  cellIndex(g.x[i], cell, grid.columns)],
                static_cast<float>(g.z[i]));
      },
      lower);
  inStaticBlocks(grid.z.size(), threads, [&](std::size_t begin, std::size_t end) {
    for (std::size_t c = begin; c < end; ++c)
      if (std::isinf(grid.z[c]))
        grid.z[c] = std::numeric_limits<float>::quiet_NaN();
  });
  return grid;
}

// Sets the cells marked in mask to NaN.
void clearMarked(HeightGrid& grid, const std::vector<std::uint8_t>& mask) {
  for (std::size_t k = 0; k < mask.size(); ++k)
    if (mask[k])
      grid.z[k] = std::numeric_limits<float>::quiet_NaN();
}

// Whether measured cell (i, j) lies more than LowOutlierDepth below every other measured cell
// within reach cells.
bool isLowOutlier(const HeightGrid& measured, std::size_t i, std::size_t j, std::size_t reach) {
  if (std::isnan(measured.at(i, j)))
    return false;
  float lowest = std::numeric_limits<float>::infinity();
  for (std::size_t nj = j > reach ? j - reach : 0; nj <= std::min(j + reach, measured.rows - 1);
       ++nj)
    for (std::size_t ni = i > reach ? i - reach : 0;
         ni <= std::min(i + reach, measured.columns - 1); ++ni)
      if ((ni != i || nj != j) && !std::isnan(measured.at(ni, nj)))
        lowest = std::min(lowest, measured.at(ni, nj));
  return measured.at(i, j) < lowest - LowOutlierDepth;
}

// Low outliers: measured cells more than LowOutlierDepth below every other measured cell within
// LowOutlierReach cells (lone pits of low noise). Ground seen through gaps of a canopy, or between
// buildings, has other ground cells that near, so it is never one.
std::vector<std::uint8_t> lowOutliers(const HeightGrid& measured, int threads) {
  const std::size_t reach = LowOutlierReach;
  std::vector<std::uint8_t> low(measured.z.size(), 0);
  detail::forEachRow(measured, threads, [&](std::size_t j) {
    for (std::size_t i = 0; i < measured.columns; ++i)
      low[j * measured.columns + i] = isLowOutlier(measured, i, j, reach);
  });
  return low;
}

// The provisional terrain: the minimum surface without low outliers and objects, filled.
HeightGrid provisionalTerrain(HeightGrid surface, const GroundFilterParameterBox& box,
                              int threads) {
  clearMarked(surface, lowOutliers(surface, threads));
  const std::vector<float> measured = surface.z;
  detail::fillHoles(surface, threads);
  const auto radius =
      static_cast<std::size_t>(std::max(1.0, std::round(box.window / box.cell_size)));
  std::vector<std::uint8_t> dropped =
      detail::progressiveObjects(surface, box.slope, radius, threads);
  // Cells that were filled are estimates, not terrain: they are filled again from the terrain.
  for (std::size_t k = 0; k < dropped.size(); ++k)
    dropped[k] = dropped[k] || std::isnan(measured[k]);
  const std::vector<float> opened = surface.z;
  clearMarked(surface, dropped);
  if (!detail::fillHoles(surface, threads))
    surface.z = opened; // every cell an object: the opened surface is the best terrain there is
  return surface;
}

// Whether every gathered point is ground: within threshold + scalar * slope of the terrain.
Basalt::ArrayVector<std::uint8_t> groundPoints(const Gathered& g, const HeightGrid& terrain,
                                               const GroundFilterParameterBox& box, int threads) {
  const HeightGrid slope = detail::slopeOf(terrain, threads);
  Basalt::ArrayVector<std::uint8_t> ground(g.x.size()); // every point is written below
  inStaticBlocks(g.x.size(), threads, [&](std::size_t begin, std::size_t end) {
    for (std::size_t k = begin; k < end; ++k) {
      const double surface = detail::bilinear(terrain, g.x[k], g.y[k]);
      const double allowed = box.threshold + box.scalar * detail::bilinear(slope, g.x[k], g.y[k]);
      ground[k] = std::fabs(g.z[k] - surface) <= allowed;
    }
  });
  return ground;
}

void checkBox(const GroundFilterParameterBox& box) {
  if (box.method != "smrf")
    throw std::runtime_error("unknown method \"" + box.method + "\" (smrf)");
  if (!(box.cell_size > 0) || !(box.slope > 0) || !(box.window > 0) || !(box.threshold >= 0) ||
      !(box.scalar >= 0))
    throw std::runtime_error("cell_size, slope and window must be above 0, threshold and scalar "
                             "0 or more");
}

// Writes the decisions back, fragment by fragment in the order they were gathered, by the blocks
// that gathered them: each starts at the count of points that take part before it.
std::size_t writeClasses(const Field& positions, const StrongPtr<Field>& classes,
                         const ClassTable& ignored, const Gathered& g,
                         const Basalt::ArrayVector<std::uint8_t>& ground, bool reset, int threads) {
  std::size_t first = 0, f = 0;
  forEachFragmentOf(positions, classes,
                    [&](const FragmentSlot& slot, const MemArray<1, point>& xyz,
                        const MemArray<1, unsigned char>*) {
                      FragmentOutput<unsigned char> out(classes, slot.id, xyz.size(), 0, threads);
                      const std::vector<std::size_t>& blocks = g.blocks[f++];
                      // A point's class is read before its block changes it: the answer gather had.
                      Basalt::placeInBlocks(
                          xyz.size(), blocks, threads,
                          [&](std::size_t i) { return takesPart(xyz[i], out[i], ignored); },
                          [&](std::size_t i, std::size_t at) {
                            unsigned char& c = out[i];
                            if (reset || c <= Ground)
                              c = ground[first + at] ? Ground : Unassigned;
                          });
                      first += blocks.back();
                      out.commit();
                    });
  return static_cast<std::size_t>(std::count(ground.begin(), ground.end(), std::uint8_t{1}));
}

} // namespace

std::size_t groundFilter(const StrongPtr<Grid>& grid, GroundFilterParameterBox& box) {
  box.message.clear();
  try {
    checkBox(box);
    const StrongPtr<Field> positions = grid ? grid->CartesianPositions() : nullptr;
    if (!positions)
      throw std::runtime_error("the cloud has no positions");
    const StrongPtr<Field> classes = outputField<unsigned char>(grid, "Classification");
    if (!classes)
      throw std::runtime_error("\"Classification\" exists with another type than 8-bit");
    const ClassTable ignored = tableOf(box.ignore);
    const int threads = maximumThreadsMinusOne();
    const Gathered g = gather(*positions, classes, ignored, threads);
    const HeightGrid terrain =
        provisionalTerrain(minimumSurface(g, box.cell_size, threads), box, threads);
    return writeClasses(*positions, classes, ignored, g, groundPoints(g, terrain, box, threads),
                        box.reset, threads);
  } catch (const std::exception& e) {
    box.message = e.what();
    return 0;
  }
}

} // namespace Quorvel
