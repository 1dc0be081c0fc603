// Quorvel: what the raster readers and writers share: a raster grid made from row-major cells,
// its attributes, and the cells back.
#pragma once

#include "io/raster.hpp"

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

// Registers GDAL's drivers once and keeps its messages off standard error (ours name the file).
void registerDrivers();

// The raster grid of the pixels, in fragments of at most fragmentCells cells per axis.
Basalt::StrongPtr<Tressel::Grid> gridOf(const Pixels& pixels, std::size_t fragmentCells,
                                        const std::string& heightField);

// The pixels of a raster grid (without its filling); throws Las::Error naming path when the grid
// is not a raster or lacks the fields.
Pixels pixelsOf(const Tressel::Grid& raster, const std::string& heightField,
                const std::string& path);

} // namespace Quorvel::Raster::detail
