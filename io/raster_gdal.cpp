// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: raster files through GDAL: any raster it reads, into a raster grid; raster grids out
// as GeoTIFF.
#include "io/detail/gdal.hpp"
#include "io/detail/raster.hpp"

#include "basalt/replacing_file.hpp"
#include "basalt/text.hpp"
#include "quorvel/core/budget.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <gdal.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace Quorvel::Raster {

namespace detail {

void registerDrivers() {
  static std::once_flag once;
  std::call_once(once, [] {
    GDALAllRegister();
    // GDAL's own messages would repeat ours on standard error.
    CPLSetErrorHandler(CPLQuietErrorHandler);
  });
}

void DatasetCloser::operator()(GDALDataset* d) const {
  GDALClose(d);
}

void fail(const std::string& path, const std::string& problem) {
  throw Las::Error(path + ": " + problem);
}

std::string gdalError(const std::string& otherwise) {
  const char* text = CPLGetLastErrorMsg();
  return text && *text ? std::string(text) : otherwise;
}

} // namespace detail

namespace {

using detail::registerDrivers;

constexpr double NoDataValue = -9999.0;

using detail::Dataset;
using detail::fail;

// The pixels of band 1, rows turned so that y grows with the row.
detail::Pixels readPixels(GDALDataset& data, const std::string& path) {
  double t[6];
  if (data.GetGeoTransform(t) != CE_None)
    fail(path, "the raster has no georeferencing (geotransform)");
  if (t[2] != 0.0 || t[4] != 0.0)
    fail(path, "the raster is rotated (its geotransform has rotation terms); warp it north-up");
  if (!std::isfinite(t[0]) || !std::isfinite(t[3]))
    fail(path, Basalt::format("the raster's origin (%g, %g) is not finite", t[0], t[3]));
  if (!(std::isfinite(t[1]) && t[1] > 0) || !(std::isfinite(t[5]) && t[5] != 0))
    fail(path, Basalt::format("the raster's pixel size (%g by %g) is not usable: the width must "
                              "be positive and finite, the height finite and not 0",
                              t[1], t[5]));
  detail::Pixels p;
  p.columns = static_cast<std::size_t>(data.GetRasterXSize());
  p.rows = static_cast<std::size_t>(data.GetRasterYSize());
  if (p.columns == 0 || p.rows == 0)
    fail(path, "the raster holds no pixels");
  // A few bytes (a sparse TIFF, a VRT) may claim billions of pixels: the claim is checked
  // before anything is sized from it.
  try {
    checkCellBudget(path, static_cast<double>(p.columns), static_cast<double>(p.rows), "pixels");
  } catch (const std::runtime_error& e) {
    throw Las::Error(e.what());
  }
  GDALRasterBand* band = data.GetRasterBand(1);
  int hasNoData = 0;
  const double noData = band->GetNoDataValue(&hasNoData);
  std::vector<float> rows(p.columns * p.rows);
  if (band->RasterIO(GF_Read, 0, 0, static_cast<int>(p.columns), static_cast<int>(p.rows),
                     rows.data(), static_cast<int>(p.columns), static_cast<int>(p.rows),
                     GDT_Float32, 0, 0) != CE_None)
    fail(path, "cannot read band 1: " + detail::gdalError("read error"));
  const bool southUp = t[5] > 0;
  p.sizeX = t[1];
  p.sizeY = std::fabs(t[5]);
  p.x0 = t[0] + t[1] / 2;
  p.y0 = southUp ? t[3] + t[5] / 2 : t[3] + t[5] * (static_cast<double>(p.rows) - 0.5);
  p.types.resize(rows.size());
  p.heights.resize(rows.size());
  const float noDataFloat = static_cast<float>(noData);
  for (std::size_t j = 0; j < p.rows; ++j) {
    const float* from = rows.data() + (southUp ? j : p.rows - 1 - j) * p.columns;
    for (std::size_t i = 0; i < p.columns; ++i) {
      const float h = from[i];
      // NaN is no-data as GDAL writes it; an infinite height is a broken value, not a height.
      if (std::isinf(h))
        fail(path, Basalt::format("the pixel at row %zu, column %zu of band 1 is %g",
                                  southUp ? j : p.rows - 1 - j, i, double(h)));
      const bool missing = std::isnan(h) || (hasNoData && h == noDataFloat);
      p.types[j * p.columns + i] = missing ? NoData : Measured;
      p.heights[j * p.columns + i] = missing ? std::nanf("") : h;
    }
  }
  if (const char* wkt = data.GetProjectionRef())
    p.coordinateSystem = wkt;
  return p;
}

// The coordinate system of a raster grid as GDAL takes it; empty, after a warning, when the text
// is not one GDAL reads (a LAS file's WKT record holding an empty string or a broken text): the
// raster is written without one rather than not at all.
std::optional<OGRSpatialReference> referenceOf(const std::string& wkt, const Las::Warn& warn) {
  if (wkt.empty())
    return std::nullopt;
  OGRSpatialReference reference;
  reference.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  if (reference.importFromWkt(wkt.c_str()) == OGRERR_NONE && reference.Validate() == OGRERR_NONE)
    return reference;
  if (warn)
    warn("the coordinate system is not one GDAL reads (\"" + wkt.substr(0, 60) +
         (wkt.size() > 60 ? "...\"" : "\"") + "): the GeoTIFF is written without one");
  return std::nullopt;
}

} // namespace

namespace Gdal {

Basalt::StrongPtr<Tressel::Grid> import(const std::string& path, std::size_t fragmentCells,
                                        const std::string& heightField) {
  registerDrivers();
  if (!std::filesystem::exists(path))
    fail(path, "no such file");
  if (fragmentCells == 0)
    fail(path, "a fragment needs at least one cell");
  Dataset data(static_cast<GDALDataset*>(
      GDALOpenEx(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr)));
  if (!data || data->GetRasterCount() < 1)
    fail(path, "not a raster GDAL can read");
  return Las::reading(path, "its pixels", [&] {
    return detail::gridOf(readPixels(*data, path), fragmentCells, heightField);
  });
}

void writeGeoTiff(const std::string& path, const Tressel::Grid& raster,
                  const std::string& heightField, const Las::Warn& warn) {
  registerDrivers();
  const detail::Pixels p = detail::pixelsOf(raster, heightField, path);
  const auto reference = referenceOf(p.coordinateSystem, warn);
  std::vector<float> rows(p.columns * p.rows);
  for (std::size_t j = 0; j < p.rows; ++j) // north-up: the first row is the highest y
    for (std::size_t i = 0; i < p.columns; ++i) {
      const std::size_t k = j * p.columns + i;
      const bool ground = p.types[k] == Measured || p.types[k] == Filled;
      rows[(p.rows - 1 - j) * p.columns + i] =
          ground ? p.heights[k] : static_cast<float>(NoDataValue);
    }
  GDALDriver* driver = GetGDALDriverManager()->GetDriverByName("GTiff");
  if (!driver)
    fail(path, "GDAL has no GeoTIFF driver");
  try {
    Basalt::ReplacingFile file(path);
    {
      char** options = CSLSetNameValue(nullptr, "COMPRESS", "DEFLATE");
      options = CSLSetNameValue(options, "ZLEVEL", "1");
      // The floating-point predictor (TIFF's predictor 3) makes heights a tenth smaller.
      options = CSLSetNameValue(options, "PREDICTOR", "3");
      Dataset out(driver->Create(file.temporary().c_str(), static_cast<int>(p.columns),
                                 static_cast<int>(p.rows), 1, GDT_Float32, options));
      CSLDestroy(options);
      if (!out)
        fail(path, "cannot create the GeoTIFF: " + detail::gdalError("create error"));
      double t[6] = {p.x0 - p.sizeX / 2,
                     p.sizeX,
                     0.0,
                     p.y0 + p.sizeY * (static_cast<double>(p.rows) - 0.5),
                     0.0,
                     -p.sizeY};
      GDALRasterBand* band = out->GetRasterBand(1);
      if (out->SetGeoTransform(t) != CE_None || band->SetNoDataValue(NoDataValue) != CE_None ||
          (reference && out->SetSpatialRef(&*reference) != CE_None) ||
          band->RasterIO(GF_Write, 0, 0, static_cast<int>(p.columns), static_cast<int>(p.rows),
                         rows.data(), static_cast<int>(p.columns), static_cast<int>(p.rows),
                         GDT_Float32, 0, 0) != CE_None)
        fail(path, "cannot write the GeoTIFF: " + detail::gdalError("write error"));
      // Flushing and closing write what GDAL still holds, and report a failure (a full disk, a
      // file-size limit) only as the last error: it is cleared first and read after both.
      CPLErrorReset();
      out->FlushCache();
      out.reset();
      if (CPLGetLastErrorType() >= CE_Failure)
        fail(path, "cannot write the GeoTIFF: " + detail::gdalError("write error"));
    }
    file.commit();
  } catch (const Basalt::ReplacingFile::Error& e) {
    throw Las::Error(e.what());
  }
}

} // namespace Gdal

} // namespace Quorvel::Raster
