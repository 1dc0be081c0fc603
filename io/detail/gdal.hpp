// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the part of the raster library that needs GDAL and PROJ. It is a module of its own
// (libquorvel_gdal.so) that the raster library opens the first time one of these functions is
// called, so that programs reading and writing LAS alone never load GDAL, PROJ or their many
// dependencies. Each function here does what its namesake of io/raster.hpp says; those forward
// to these.
#pragma once

#include "io/raster.hpp"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Raster::Gdal {

Basalt::StrongPtr<Tressel::Grid> import(const std::string& path, std::size_t fragmentCells,
                                        const std::string& heightField);
void writeGeoTiff(const std::string& path, const Tressel::Grid& raster,
                  const std::string& heightField, const Las::Warn& warn);
bool cutGeoTiff(const std::string& from, const std::string& to, const std::array<double, 4>& area);
void writeMosaic(const std::string& path, const std::vector<std::string>& files);
std::optional<CoordinateSystem> coordinateSystemOfWkt(const std::string& wkt);
std::optional<CoordinateSystem> coordinateSystemOf(const Las::Header& header,
                                                   const std::vector<Las::Vlr>& vlrs,
                                                   const std::vector<Las::Vlr>& evlrs);
std::string coordinateSystemKey(const Las::FileInfo& info);
std::string coordinateSystemOf(const Tressel::Grid& cloud, const Las::Warn& warn);
void writeFootprints(const std::string& path, const std::vector<Footprint>& footprints,
                     const std::optional<CoordinateSystem>& cs);
void writePicture(const std::string& path, const Image& image, const std::string& wkt);
void writeThumbnail(const std::string& path, const Tressel::Grid& cloud, std::size_t size);
std::vector<Polygon> readPolygons(const std::string& path, const std::string& layer,
                                  const std::string& filter, const std::string& cloudWkt);
Transformation transformation(const std::string& from, const std::string& to);
void setCoordinateSystem(Las::FileInfo& info, const CoordinateSystem& cs);

// The module's functions, as the raster library calls them.
struct Functions {
  decltype(&Gdal::import) import;
  decltype(&Gdal::writeGeoTiff) writeGeoTiff;
  decltype(&Gdal::cutGeoTiff) cutGeoTiff;
  decltype(&Gdal::writeMosaic) writeMosaic;
  decltype(&Gdal::coordinateSystemOfWkt) coordinateSystemOfWkt;
  std::optional<CoordinateSystem> (*coordinateSystemOfRecords)(const Las::Header&,
                                                               const std::vector<Las::Vlr>&,
                                                               const std::vector<Las::Vlr>&);
  decltype(&Gdal::coordinateSystemKey) coordinateSystemKey;
  std::string (*coordinateSystemOfCloud)(const Tressel::Grid&, const Las::Warn&);
  decltype(&Gdal::writeFootprints) writeFootprints;
  decltype(&Gdal::writePicture) writePicture;
  decltype(&Gdal::writeThumbnail) writeThumbnail;
  decltype(&Gdal::readPolygons) readPolygons;
  decltype(&Gdal::transformation) transformation;
  decltype(&Gdal::setCoordinateSystem) setCoordinateSystem;
};

// The module's functions, the module opened on the first call. Throws Las::Error naming the
// module and why it cannot be opened.
const Functions& functions();

} // namespace Quorvel::Raster::Gdal

// What the module exports: its functions.
extern "C" const Quorvel::Raster::Gdal::Functions* quorvelGdalFunctions();
