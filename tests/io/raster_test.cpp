// SPDX-License-Identifier: BSD-3-Clause
// Tests of rasters in and out: GeoTIFFs written here with GDAL's own writer imported cell for
// cell and written back, and the coordinate systems of LAS files carried into ground rasters.
#include "io/raster.hpp"

#include "support/scratch_directory.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"

#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>

namespace {

using namespace Quorvel;
using Vantor::PhysicalSpace::point;

struct Closer {
  void operator()(GDALDataset* d) const { GDALClose(d); }
};
using Dataset = std::unique_ptr<GDALDataset, Closer>;

// A 7 x 5 north-up GeoTIFF of 2 m pixels, top-left corner (1000, 2010), EPSG:32633, pixel
// (column c, row r) holding 10 c + r, nodata -1 at (2, 1) and NaN at (6, 4).
std::string writeTiff(const std::string& path, double rotation = 0.0) {
  GDALAllRegister();
  Dataset d(GetGDALDriverManager()->GetDriverByName("GTiff")->Create(path.c_str(), 7, 5, 1,
                                                                     GDT_Float32, nullptr));
  double t[6] = {1000, 2, rotation, 2010, 0, -2};
  d->SetGeoTransform(t);
  OGRSpatialReference srs;
  srs.importFromEPSG(32633);
  char* wkt = nullptr;
  srs.exportToWkt(&wkt);
  d->SetProjection(wkt);
  const std::string text = wkt;
  CPLFree(wkt);
  std::vector<float> v(35);
  for (int r = 0; r < 5; ++r)
    for (int c = 0; c < 7; ++c)
      v[static_cast<std::size_t>(r * 7 + c)] = static_cast<float>(10 * c + r);
  v[1 * 7 + 2] = -1;
  v[4 * 7 + 6] = std::nanf("");
  d->GetRasterBand(1)->SetNoDataValue(-1);
  EXPECT_EQ(d->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, 7, 5, v.data(), 7, 5, GDT_Float32, 0, 0),
            CE_None);
  return text;
}

class Rasters : public ScratchDirectory {};

TEST_F(Rasters, GeoTiffsComeInCellForCellAndGoBackTheSame) {
  const std::string wkt = writeTiff(file("in.tif"));
  auto raster = Raster::import(file("in.tif"), 3);
  const auto view = Tressel::uniformGridView(*raster);
  ASSERT_TRUE(view);
  // Pixel centres, y growing with the row: row 4 of the file (lowest) is cell row 0.
  EXPECT_EQ(view->origin, point(1001, 2001, 0));
  EXPECT_EQ(view->cellSize, Vantor::PhysicalSpace::vector(2, 2, 0));
  EXPECT_EQ(view->cells, Tressel::MultiIndex<3>(3, 3, 1));
  EXPECT_EQ(view->fragments, Tressel::MultiIndex<3>(3, 2, 1));
  // One cell per pixel: the last fragments hold the 1 column and 2 rows left, no filling.
  EXPECT_EQ(view->total, Tressel::MultiIndex<3>(7, 5, 1));
  const auto types = Tressel::uniformCells<std::uint8_t>(*raster, "CellType");
  const auto heights = Tressel::uniformCells<float>(*raster, "Height");
  ASSERT_EQ(types.size(), 35u);
  for (std::size_t j = 0; j < 5; ++j)
    for (std::size_t i = 0; i < 7; ++i) {
      const std::size_t k = j * 7 + i;
      const std::size_t fileRow = 4 - j;
      if ((i == 2 && fileRow == 1) || (i == 6 && fileRow == 4)) {
        EXPECT_EQ(types[k], Raster::NoData) << i << "," << j;
        EXPECT_TRUE(std::isnan(heights[k]));
      } else {
        EXPECT_EQ(types[k], Raster::Measured) << i << "," << j;
        EXPECT_EQ(heights[k], static_cast<float>(10 * i + fileRow)) << i << "," << j;
      }
    }

  Raster::writeGeoTiff(file("out.tif"), *raster);
  Dataset back(static_cast<GDALDataset*>(GDALOpen(file("out.tif").c_str(), GA_ReadOnly)));
  ASSERT_TRUE(back);
  ASSERT_EQ(back->GetRasterXSize(), 7);
  ASSERT_EQ(back->GetRasterYSize(), 5);
  double t[6];
  back->GetGeoTransform(t);
  EXPECT_EQ(std::vector<double>(t, t + 6), (std::vector<double>{1000, 2, 0, 2010, 0, -2}));
  OGRSpatialReference written(back->GetProjectionRef()), original(wkt.c_str());
  EXPECT_TRUE(written.IsSame(&original));
  int has = 0;
  EXPECT_EQ(back->GetRasterBand(1)->GetNoDataValue(&has), -9999.0);
  EXPECT_TRUE(has);
  std::vector<float> v(35);
  ASSERT_EQ(
      back->GetRasterBand(1)->RasterIO(GF_Read, 0, 0, 7, 5, v.data(), 7, 5, GDT_Float32, 0, 0),
      CE_None);
  for (int r = 0; r < 5; ++r)
    for (int c = 0; c < 7; ++c) {
      const bool missing = (c == 2 && r == 1) || (c == 6 && r == 4);
      EXPECT_EQ(v[static_cast<std::size_t>(r * 7 + c)], missing ? -9999.0f : 10.0f * c + r);
    }
}

TEST_F(Rasters, UnusableFilesAreRefusedWithTheirReason) {
  auto refused = [&](const std::string& path, const std::string& reason) {
    try {
      Raster::import(path);
      ADD_FAILURE() << path << " was read";
    } catch (const Las::Error& e) {
      EXPECT_EQ(std::string(e.what()), path + ": " + reason);
    }
  };
  refused(file("none.tif"), "no such file");
  std::ofstream(file("text.tif")) << "not a raster";
  refused(file("text.tif"), "not a raster GDAL can read");
  writeTiff(file("rotated.tif"), 0.5);
  refused(file("rotated.tif"),
          "the raster is rotated (its geotransform has rotation terms); warp it north-up");
  // A grid that is not a raster cannot be written as one, and an earlier file stays.
  writeTiff(file("keep.tif"));
  auto cloud = Tressel::PointCloudBuilder({point(0, 0, 0)}).build(Tressel::Partition{{0}});
  EXPECT_THROW(Raster::writeGeoTiff(file("keep.tif"), *cloud), Las::Error);
  EXPECT_NO_THROW(Raster::import(file("keep.tif")));
}

TEST_F(Rasters, CoordinateSystemsOfLasFilesTravelIntoGeoTiffs) {
  const auto read = Las::read(std::string(QUORVEL_SAMPLE_DATA) + "/nebraska_wkt_geotiff.las");
  const std::string wkt = Raster::coordinateSystemOf(*read.grid);
  ASSERT_FALSE(wkt.empty());
  GroundRasterParameterBox box;
  box.classes = Vantor::MultiRange<double>("0:255");
  box.cell_size = 50;
  Raster::writeGeoTiff(file("dtm.tif"), *groundRaster(*read.grid, box, wkt));
  Dataset back(static_cast<GDALDataset*>(GDALOpen(file("dtm.tif").c_str(), GA_ReadOnly)));
  ASSERT_TRUE(back);
  OGRSpatialReference written(back->GetProjectionRef()), original(wkt.c_str());
  EXPECT_TRUE(written.IsSame(&original));

  // GeoTIFF keys alone: the EPSG code of ProjectedCSTypeGeoKey (3072).
  auto cloud = Tressel::PointCloudBuilder({point(0, 0, 0)}).build(Tressel::Partition{{0}});
  Las::FileInfo info;
  Las::Vlr keys;
  keys.userId = "LASF_Projection";
  keys.recordId = 34735;
  for (std::uint16_t word : {1, 1, 0, 1, 3072, 0, 1, 32615}) {
    keys.data.push_back(static_cast<std::uint8_t>(word & 0xFF));
    keys.data.push_back(static_cast<std::uint8_t>(word >> 8));
  }
  info.vlrs.push_back(keys);
  Las::setFileInfo(*cloud, info);
  OGRSpatialReference utm;
  utm.importFromEPSG(32615);
  OGRSpatialReference fromKeys(Raster::coordinateSystemOf(*cloud).c_str());
  EXPECT_TRUE(fromKeys.IsSame(&utm));
}

} // namespace
