// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: raster grids made from row-major pixels, with their attributes.
#include "quorvel/core/budget.hpp"
#include "quorvel/raster/detail/points.hpp"

#include "basalt/chunk.hpp"
#include "tressel/bundle.hpp"
#include "tressel/uniform_grid.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel::Raster::detail {

namespace {

template <class T>
void putValue(Tressel::Grid& grid, const char* name, T value) {
  grid.attributes().setAttribute(name, std::make_shared<Basalt::Chunk<T>>(std::vector<T>{value}));
}

void putText(Tressel::Grid& grid, const char* name, const std::string& text) {
  grid.attributes().setAttribute(name, std::make_shared<Basalt::Chunk<std::uint8_t>>(
                                           std::vector<std::uint8_t>(text.begin(), text.end())));
}

} // namespace

Pixels coveringPixels(const Tressel::Grid& cloud, double c, const std::string& what) {
  if (!(c > 0) || !std::isfinite(c))
    throw std::runtime_error(what + ": the cell size must be a positive number");
  // The extent from the fragments' boxes (LAS and bundle readers store them), so that the points
  // are read once. One column and row past the pixels of the highest points: the mapping takes a
  // point whose position shifted by half a cell lies within the box of the pixels' centres, so
  // the points of the last pixels need the centres beyond them.
  double lowX = std::numeric_limits<double>::infinity(), lowY = lowX, highX = -lowX, highY = -lowX;
  if (auto positions = cloud.CartesianPositions())
    for (const FragmentSlot& slot : fragmentsOf(*positions))
      if (const auto box = fragmentBBox(slot); box && !box->empty()) {
        lowX = std::min(lowX, std::floor(box->min().x / c));
        highX = std::max(highX, std::floor(box->max().x / c) + 1);
        lowY = std::min(lowY, std::floor(box->min().y / c));
        highY = std::max(highY, std::floor(box->max().y / c) + 1);
      }
  if (!(lowX <= highX) || !std::isfinite(highX - lowX) || !std::isfinite(highY - lowY))
    throw std::runtime_error(what + ": the cloud has no point with finite coordinates");
  // More cells than the budget is a cell size far too small for the cloud (or a stray point far
  // away): refused before anything is sized from it.
  checkCellBudget(what, highX - lowX + 1, highY - lowY + 1);
  Pixels p;
  p.columns = static_cast<std::size_t>(highX - lowX) + 1;
  p.rows = static_cast<std::size_t>(highY - lowY) + 1;
  p.x0 = (lowX + 0.5) * c;
  p.y0 = (lowY + 0.5) * c;
  p.sizeX = p.sizeY = c;
  return p;
}

Basalt::StrongPtr<Tressel::Grid> gridOf(const Pixels& pixels, std::size_t fragmentCells,
                                        const std::string& heightField) {
  const std::size_t cx = std::max<std::size_t>(1, std::min(fragmentCells, pixels.columns));
  const std::size_t cy = std::max<std::size_t>(1, std::min(fragmentCells, pixels.rows));
  Tressel::Bundle bundle;
  auto grid = Tressel::createUniformGrid3D(
      bundle, 0.0, "raster", {pixels.columns, pixels.rows, 1}, {cx, cy, 1},
      Vantor::PhysicalSpace::point(pixels.x0, pixels.y0, 0.0),
      Vantor::PhysicalSpace::vector(pixels.sizeX, pixels.sizeY, 0.0));
  Tressel::setUniformCells<std::uint8_t>(*grid, "CellType", pixels.types.data(), pixels.columns,
                                         pixels.rows, NoData);
  Tressel::setUniformCells<float>(*grid, heightField, pixels.heights.data(), pixels.columns,
                                  pixels.rows, std::numeric_limits<float>::quiet_NaN());
  putValue<unsigned long long>(*grid, "RasterColumns", pixels.columns);
  putValue<unsigned long long>(*grid, "RasterRows", pixels.rows);
  putText(*grid, "CoordinateSystem", pixels.coordinateSystem);
  return grid;
}

} // namespace Quorvel::Raster::detail

namespace Quorvel {

void setRasterCoordinateSystem(Tressel::Grid& raster, const std::string& coordinateSystem) {
  Raster::detail::putText(raster, "CoordinateSystem", coordinateSystem);
}

} // namespace Quorvel
