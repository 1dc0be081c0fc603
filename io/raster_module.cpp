// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the raster functions that need GDAL, forwarded to the GDAL module (io/detail/gdal.hpp),
// which is opened the first time one of them is called.
#include "io/detail/gdal.hpp"

#include "basalt/module.hpp"
#include "quorvel/core/parallel.hpp"
#include "tressel/bundle.hpp"

#include <stdexcept>

namespace Quorvel::Raster {

namespace Gdal {

const Functions& functions() {
  static const Functions* const table = [] {
    using Entry = const Functions* (*)();
    const auto anchor = reinterpret_cast<const void*>(&functions);
    try {
      return reinterpret_cast<Entry>(
          Basalt::moduleEntry("libquorvel_gdal.so", "quorvelGdalFunctions", anchor))();
    } catch (const std::runtime_error& e) {
      throw Las::Error(std::string("rasters and coordinate systems need GDAL: ") + e.what());
    }
  }();
  return *table;
}

} // namespace Gdal

OpenedAhead::OpenedAhead(bool gdal, bool bundles) {
  if (!gdal && !bundles)
    return;
  // The reading's threads are made before the loading holds the loader's lock.
  openThreads(allThreads());
  thread_ = std::thread([gdal, bundles] {
    if (gdal)
      try {
        Gdal::functions();
      } catch (...) { // NOLINT(bugprone-empty-catch): said again when a function needs it
      }
    if (bundles)
      Tressel::openBundleModule();
  });
}

OpenedAhead::~OpenedAhead() {
  if (thread_.joinable())
    thread_.join();
}

Basalt::StrongPtr<Tressel::Grid> import(const std::string& path, std::size_t fragmentCells,
                                        const std::string& heightField) {
  return Gdal::functions().import(path, fragmentCells, heightField);
}

void writeGeoTiff(const std::string& path, const Tressel::Grid& raster,
                  const std::string& heightField, const Las::Warn& warn) {
  Gdal::functions().writeGeoTiff(path, raster, heightField, warn);
}

bool cutGeoTiff(const std::string& from, const std::string& to, const std::array<double, 4>& area) {
  return Gdal::functions().cutGeoTiff(from, to, area);
}

void writeMosaic(const std::string& path, const std::vector<std::string>& files) {
  Gdal::functions().writeMosaic(path, files);
}

std::optional<CoordinateSystem> coordinateSystemOfWkt(const std::string& wkt) {
  return Gdal::functions().coordinateSystemOfWkt(wkt);
}

std::optional<CoordinateSystem> coordinateSystemOf(const Las::Header& header,
                                                   const std::vector<Las::Vlr>& vlrs,
                                                   const std::vector<Las::Vlr>& evlrs) {
  return Gdal::functions().coordinateSystemOfRecords(header, vlrs, evlrs);
}

std::string coordinateSystemKey(const Las::FileInfo& info) {
  return Gdal::functions().coordinateSystemKey(info);
}

std::string coordinateSystemOf(const Tressel::Grid& cloud, const Las::Warn& warn) {
  // A cloud without coordinate-system records has none: GDAL need not be opened to say so.
  const auto info = Las::fileInfo(cloud);
  if (!info || !Las::hasCoordinateSystemRecords(*info))
    return {};
  return Gdal::functions().coordinateSystemOfCloud(cloud, warn);
}

void writeFootprints(const std::string& path, const std::vector<Footprint>& footprints,
                     const std::optional<CoordinateSystem>& cs) {
  Gdal::functions().writeFootprints(path, footprints, cs);
}

void writePicture(const std::string& path, const Image& image, const std::string& wkt) {
  Gdal::functions().writePicture(path, image, wkt);
}

void writeThumbnail(const std::string& path, const Tressel::Grid& cloud, std::size_t size) {
  Gdal::functions().writeThumbnail(path, cloud, size);
}

std::vector<Polygon> readPolygons(const std::string& path, const std::string& layer,
                                  const std::string& filter, const std::string& cloudWkt) {
  return Gdal::functions().readPolygons(path, layer, filter, cloudWkt);
}

Transformation transformation(const std::string& from, const std::string& to) {
  return Gdal::functions().transformation(from, to);
}

void setCoordinateSystem(Las::FileInfo& info, const CoordinateSystem& cs) {
  Gdal::functions().setCoordinateSystem(info, cs);
}

} // namespace Quorvel::Raster
