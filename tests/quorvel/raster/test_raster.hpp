// SPDX-License-Identifier: BSD-3-Clause
// Rasters made for the raster tests: a small fragmented grid of sloped, noisy ground heights
// and cell types, written as a bundle, and reading prepared cells back.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/raster/raster.hpp"
#include "tressel/bundle.hpp"
#include "tressel/uniform_grid.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace TestRaster {

using Quorvel::point;
using Vantor::PhysicalSpace::vector;

// A raster of 2 x 2 fragments of 4 x 3 cells of 2 m at (1000, 2000): heights on a slope with
// noise, cell types 0 and 4 with a few 1, 2 and 5 among them.
struct RasterShape {
  Tressel::MultiIndex<3> fragments{2, 2, 1}, cells{4, 3, 1};
  point origin{1000.0, 2000.0, 0.0};
  double size = 2.0;

  std::size_t width() const { return fragments[0] * cells[0]; }
  std::size_t depth() const { return fragments[1] * cells[1]; }
  double height(std::size_t gx, std::size_t gy) const {
    return 50.0 + 0.1 * static_cast<double>(gx) - 0.05 * static_cast<double>(gy) +
           0.3 * std::sin(static_cast<double>(gx * 7 + gy * 3));
  }
  unsigned char type(std::size_t gx, std::size_t gy) const {
    const std::size_t k = gx * 5 + gy * 11;
    return k % 13 == 3 ? 1 : k % 17 == 5 ? 2 : k % 19 == 7 ? 5 : k % 3 == 0 ? 4 : 0;
  }
};

// The row-major values of every cell of the raster.
template <class T, class F>
void addCells(Tressel::Grid& grid, const char* name, const RasterShape& r, F value) {
  std::vector<T> cells;
  for (std::size_t y = 0; y < r.depth(); ++y)
    for (std::size_t x = 0; x < r.width(); ++x)
      cells.push_back(value(x, y));
  Tressel::setUniformCells<T>(grid, name, cells.data(), r.width(), r.depth(), T());
}

inline void writeRaster(const std::string& path, const RasterShape& r, bool withTypes = true) {
  auto bundle = std::make_shared<Tressel::Bundle>();
  ASSERT_TRUE(bundle->bindToNew(path, nullptr));
  auto grid = Tressel::createRegularlyFragmentedGridWithCartesianVertices3D(
      *bundle, 0.0, "raster", r.fragments, r.cells, r.origin, vector(r.size, r.size, 0.0));
  if (withTypes)
    addCells<unsigned char>(*grid, "CellType", r, [&](auto x, auto y) { return r.type(x, y); });
  addCells<float>(*grid, "Height", r,
                  [&](auto x, auto y) { return static_cast<float>(r.height(x, y)); });
  ASSERT_TRUE(bundle->save()) << bundle->lastError();
}

inline Quorvel::MapRasterOnPointCloudParameterBox boxFor(const RasterShape& r) {
  Quorvel::MapRasterOnPointCloudParameterBox box;
  box.cellsize = {r.size, r.size, 0.0};
  box.rastersize = {r.cells[0], r.cells[1], 1};
  return box;
}

// The value of a prepared field at global cell (gx, gy).
template <class T>
T cellValue(const Tressel::Grid& raster, const char* name, const RasterShape& r, std::size_t gx,
            std::size_t gy) {
  auto rep = raster.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto field = rep->findField(name);
  const auto id = rep->fragmentLayout()->findFragmentID(
      static_cast<unsigned>(gx / r.cells[0] + r.fragments[0] * (gy / r.cells[1])));
  auto array = Tressel::arrayCast<3, T>(field->getData(id));
  return array->view()(gx % r.cells[0], gy % r.cells[1], 0);
}

} // namespace TestRaster
