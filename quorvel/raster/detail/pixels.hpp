// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the pixels of a raster, row-major, and the raster grid made from them: what ground
// rasters and the raster readers share.
#pragma once

#include "quorvel/raster/raster.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace Quorvel::Raster::detail {

// The pixels of a raster, row-major from the lowest y (cell (i, j) at j * columns + i).
struct Pixels {
  std::size_t columns = 0, rows = 0;
  double x0 = 0, y0 = 0;           // centre of cell (0, 0)
  double sizeX = 1, sizeY = 1;     // cell edges
  std::vector<std::uint8_t> types; // Measured, Filled or NoData
  std::vector<float> heights;      // NaN where NoData
  std::string coordinateSystem;    // WKT, or empty
};

// The raster grid of the pixels, in fragments of at most fragmentCells cells per axis.
Basalt::StrongPtr<Tressel::Grid> gridOf(const Pixels& pixels, std::size_t fragmentCells,
                                        const std::string& heightField);

} // namespace Quorvel::Raster::detail
