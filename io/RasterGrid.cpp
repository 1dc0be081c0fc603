// Quorvel: raster grids from pixels and back, and the coordinate system of a LAS cloud.
#include "io/detail/Raster.hpp"

#include "basalt/Chunk.hpp"
#include "tressel/Bundle.hpp"
#include "tressel/UniformGrid.hpp"

#include <ogr_spatialref.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>

namespace Quorvel::Raster {

namespace {

template <class T>
void putValue(Tressel::Grid& grid, const char* name, T value) {
  grid.attributes().setAttribute(name, std::make_shared<Basalt::Chunk<T>>(std::vector<T>{value}));
}

void putText(Tressel::Grid& grid, const char* name, const std::string& text) {
  grid.attributes().setAttribute(name, std::make_shared<Basalt::Chunk<std::uint8_t>>(
                                           std::vector<std::uint8_t>(text.begin(), text.end())));
}

std::string getText(const Tressel::Grid& grid, const char* name) {
  const auto chunk = Basalt::chunkCast<std::uint8_t>(grid.attributes().getAttribute(name));
  return chunk ? std::string(chunk->values().begin(), chunk->values().end()) : std::string();
}

std::size_t getCount(const Tressel::Grid& grid, const char* name, std::size_t otherwise) {
  const auto chunk = Basalt::chunkCast<unsigned long long>(grid.attributes().getAttribute(name));
  return chunk && chunk->size() == 1 ? static_cast<std::size_t>((*chunk)[0]) : otherwise;
}

// The WKT of an EPSG code, or empty.
std::string wktOfEpsg(int code) {
  OGRSpatialReference reference;
  if (reference.importFromEPSG(code) != OGRERR_NONE)
    return {};
  char* text = nullptr;
  std::string out;
  if (reference.exportToWkt(&text) == OGRERR_NONE && text)
    out = text;
  CPLFree(text);
  return out;
}

// The EPSG code of a GeoKeyDirectory record (projected, else geographic), or 0.
int epsgOfGeoKeys(const std::vector<std::uint8_t>& data) {
  auto word = [&](std::size_t k) {
    std::uint16_t v = 0;
    if (2 * k + 2 <= data.size())
      std::memcpy(&v, data.data() + 2 * k, 2);
    return v;
  };
  const std::size_t keys = word(3);
  int geographic = 0;
  for (std::size_t k = 1; k <= keys && 4 * k + 3 < data.size() / 2; ++k) {
    const std::uint16_t id = word(4 * k), location = word(4 * k + 1), value = word(4 * k + 3);
    if (location != 0 || value == 0 || value == 32767)
      continue; // stored elsewhere, unset or user-defined
    if (id == 3072)
      return value;
    if (id == 2048)
      geographic = value;
  }
  return geographic;
}

} // namespace

bool isRasterFile(const std::string& path) {
  std::string ext = std::filesystem::path(path).extension().string();
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return ext == ".tif" || ext == ".tiff" || ext == ".asc" || ext == ".img" || ext == ".vrt";
}

std::string coordinateSystemOf(const Tressel::Grid& cloud) {
  const auto info = Las::fileInfo(cloud);
  if (!info)
    return {};
  for (const auto* records : {&info->vlrs, &info->evlrs})
    for (const Las::Vlr& v : *records)
      if (v.userId == "LASF_Projection" && v.recordId == 2112) {
        std::string wkt(v.data.begin(), v.data.end());
        return wkt.substr(0, wkt.find('\0'));
      }
  for (const Las::Vlr& v : info->vlrs)
    if (v.userId == "LASF_Projection" && v.recordId == 34735)
      if (const int code = epsgOfGeoKeys(v.data))
        return wktOfEpsg(code);
  return {};
}

namespace detail {

Basalt::StrongPtr<Tressel::Grid> gridOf(const Pixels& pixels, std::size_t fragmentCells,
                                        const std::string& heightField) {
  const std::size_t cx = std::max<std::size_t>(1, std::min(fragmentCells, pixels.columns));
  const std::size_t cy = std::max<std::size_t>(1, std::min(fragmentCells, pixels.rows));
  Tressel::Bundle bundle;
  auto grid = Tressel::createRegularlyFragmentedGridWithCartesianVertices3D(
      bundle, 0.0, "raster", {(pixels.columns + cx - 1) / cx, (pixels.rows + cy - 1) / cy, 1},
      {cx, cy, 1}, Vantor::PhysicalSpace::point(pixels.x0, pixels.y0, 0.0),
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

Pixels pixelsOf(const Tressel::Grid& raster, const std::string& heightField,
                const std::string& path) {
  const auto view = Tressel::uniformGridView(raster);
  if (!view || view->cells[2] != 1 || view->fragments[2] != 1)
    throw Las::Error(path + ": not a raster (a uniform grid of one layer of cells)");
  Pixels p;
  const std::size_t width = view->cells[0] * view->fragments[0];
  const std::size_t height = view->cells[1] * view->fragments[1];
  p.columns = std::min(width, getCount(raster, "RasterColumns", width));
  p.rows = std::min(height, getCount(raster, "RasterRows", height));
  p.x0 = view->origin.x;
  p.y0 = view->origin.y;
  p.sizeX = view->cellSize.x;
  p.sizeY = view->cellSize.y;
  p.coordinateSystem = getText(raster, "CoordinateSystem");
  try {
    const auto types = Tressel::uniformCells<std::uint8_t>(raster, "CellType");
    const auto heights = Tressel::uniformCells<float>(raster, heightField);
    for (std::size_t j = 0; j < p.rows; ++j) {
      p.types.insert(p.types.end(), types.begin() + j * width,
                     types.begin() + j * width + p.columns);
      p.heights.insert(p.heights.end(), heights.begin() + j * width,
                       heights.begin() + j * width + p.columns);
    }
  } catch (const std::invalid_argument& e) {
    throw Las::Error(path + ": " + e.what());
  }
  return p;
}

} // namespace detail

} // namespace Quorvel::Raster
