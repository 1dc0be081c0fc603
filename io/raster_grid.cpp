// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the pixels of raster grids, and what a raster grid holds.
#include "io/detail/raster.hpp"

#include "basalt/chunk.hpp"
#include "tressel/uniform_grid.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

namespace Quorvel::Raster {

namespace {

std::string getText(const Tressel::Grid& grid, const char* name) {
  const auto chunk = Basalt::chunkCast<std::uint8_t>(grid.attributes().getAttribute(name));
  return chunk ? std::string(chunk->view().begin(), chunk->view().end()) : std::string();
}

std::size_t getCount(const Tressel::Grid& grid, const char* name, std::size_t otherwise) {
  const auto chunk = Basalt::chunkCast<unsigned long long>(grid.attributes().getAttribute(name));
  return chunk && chunk->size() == 1 ? static_cast<std::size_t>((*chunk)[0]) : otherwise;
}

// A raster grid's pixels without their cells, with the cells of a row of the whole grid (filling
// included); nullopt for a grid that is not a raster.
std::optional<std::pair<detail::Pixels, std::size_t>> layoutOf(const Tressel::Grid& raster) {
  const auto view = Tressel::uniformGridView(raster);
  if (!view || view->cells[2] != 1 || view->fragments[2] != 1)
    return std::nullopt;
  detail::Pixels p;
  const std::size_t width = view->total[0];
  const std::size_t height = view->total[1];
  p.columns = std::min(width, getCount(raster, "RasterColumns", width));
  p.rows = std::min(height, getCount(raster, "RasterRows", height));
  p.x0 = view->origin.x;
  p.y0 = view->origin.y;
  p.sizeX = view->cellSize.x;
  p.sizeY = view->cellSize.y;
  p.coordinateSystem = getText(raster, "CoordinateSystem");
  return std::pair{p, width};
}

// The values of a cell field at the pixels that are not filling, row-major. Throws
// std::invalid_argument when the grid has no such field of T.
template <class T>
std::vector<T> pixelValues(const Tressel::Grid& raster, const std::string& name,
                           const detail::Pixels& p, std::size_t width) {
  const auto all = Tressel::uniformCells<T>(raster, name);
  std::vector<T> out;
  out.reserve(p.columns * p.rows);
  for (std::size_t j = 0; j < p.rows; ++j)
    out.insert(out.end(), all.begin() + j * width, all.begin() + j * width + p.columns);
  return out;
}

} // namespace

bool isRasterFile(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".tif" || ext == ".tiff" || ext == ".asc" || ext == ".img" || ext == ".vrt";
}

namespace detail {

Pixels pixelsOf(const Tressel::Grid& raster, const std::string& heightField,
                const std::string& path) {
  auto layout = layoutOf(raster);
  if (!layout)
    throw Las::Error(path + ": not a raster (a uniform grid of one layer of cells)");
  auto& [p, width] = *layout;
  try {
    p.types = pixelValues<std::uint8_t>(raster, "CellType", p, width);
    p.heights = pixelValues<float>(raster, heightField, p, width);
  } catch (const std::invalid_argument& e) {
    throw Las::Error(path + ": " + e.what());
  }
  return p;
}

} // namespace detail

std::optional<RasterSummary> summarizeRaster(const Tressel::Grid& grid,
                                             const std::string& heightField) {
  const auto layout = layoutOf(grid);
  if (!layout)
    return std::nullopt;
  const auto& [p, width] = *layout;
  RasterSummary s;
  s.columns = p.columns;
  s.rows = p.rows;
  s.cellSizeX = p.sizeX;
  s.cellSizeY = p.sizeY;
  s.min = {p.x0 - p.sizeX / 2, p.y0 - p.sizeY / 2};
  s.max = {s.min[0] + p.sizeX * static_cast<double>(p.columns),
           s.min[1] + p.sizeY * static_cast<double>(p.rows)};
  s.coordinateSystem = p.coordinateSystem;
  // A raster that lacks cell types or heights (a field mapped onto cells under its own name) is
  // described without them.
  try {
    for (const std::uint8_t type : pixelValues<std::uint8_t>(grid, "CellType", p, width))
      ++s.cellTypes[type];
  } catch (const std::invalid_argument&) {
  }
  try {
    double lo = std::numeric_limits<double>::infinity(), hi = -lo;
    for (const float h : pixelValues<float>(grid, heightField, p, width))
      if (std::isfinite(h)) {
        lo = std::min<double>(lo, h);
        hi = std::max<double>(hi, h);
      }
    if (lo <= hi)
      s.heights = std::array<double, 2>{lo, hi};
  } catch (const std::invalid_argument&) {
  }
  return s;
}

std::string worldFilePath(const std::string& path) {
  return std::filesystem::path(path).replace_extension(".pgw").string();
}

HeightGrid heightsOf(const Tressel::Grid& raster, const std::string& heightField,
                     const std::string& path) {
  const detail::Pixels p = detail::pixelsOf(raster, heightField, path);
  HeightGrid g{p.columns, p.rows, p.x0, p.y0, p.sizeX, p.sizeY, p.heights};
  for (std::size_t k = 0; k < p.types.size(); ++k)
    if (p.types[k] != Measured && p.types[k] != Filled)
      g.heights[k] = std::nanf("");
  return g;
}

} // namespace Quorvel::Raster
