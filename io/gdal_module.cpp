// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the entry of the GDAL module (io/detail/gdal.hpp), the table of its functions.
#include "io/detail/gdal.hpp"

namespace {

const Quorvel::Raster::Gdal::Functions Table = [] {
  namespace Gdal = Quorvel::Raster::Gdal;
  Gdal::Functions f{};
  f.import = Gdal::import;
  f.writeGeoTiff = Gdal::writeGeoTiff;
  f.cutGeoTiff = Gdal::cutGeoTiff;
  f.writeMosaic = Gdal::writeMosaic;
  f.coordinateSystemOfWkt = Gdal::coordinateSystemOfWkt;
  f.coordinateSystemOfRecords = Gdal::coordinateSystemOf;
  f.coordinateSystemKey = Gdal::coordinateSystemKey;
  f.coordinateSystemOfCloud = Gdal::coordinateSystemOf;
  f.writeFootprints = Gdal::writeFootprints;
  f.writePicture = Gdal::writePicture;
  f.writeThumbnail = Gdal::writeThumbnail;
  f.readPolygons = Gdal::readPolygons;
  f.transformation = Gdal::transformation;
  f.setCoordinateSystem = Gdal::setCoordinateSystem;
  return f;
}();

} // namespace

extern "C" const Quorvel::Raster::Gdal::Functions* quorvelGdalFunctions() {
  return &Table;
}
