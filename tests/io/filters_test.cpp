// Tests of what the filters take from GDAL: reprojected clouds against GDAL's own transform
// called here point by point, the records of the new coordinate system, and polygons of a
// GeoJSON file in another system carried into the cloud's.
#include "io/raster.hpp"

#include "quorvel/core/core.hpp"
#include "support/ScratchDirectory.hpp"
#include "tressel/PointCloud.hpp"

#include <ogr_spatialref.h>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

namespace {

using namespace Quorvel;
using Vantor::PhysicalSpace::point;

// GDAL's transform between two EPSG codes, in x-y (easting, longitude) order.
std::unique_ptr<OGRCoordinateTransformation> gdalTransform(int from, int to) {
  OGRSpatialReference a, b;
  a.importFromEPSG(from);
  b.importFromEPSG(to);
  a.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  b.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  return std::unique_ptr<OGRCoordinateTransformation>(OGRCreateCoordinateTransformation(&a, &b));
}

std::vector<point> utmPoints(std::size_t n) {
  std::vector<point> xyz;
  for (std::size_t i = 0; i < n; ++i)
    xyz.emplace_back(500000.0 + static_cast<double>(i % 300) * 3.17,
                     4000000.0 + static_cast<double>(i / 300) * 2.71,
                     100.0 + static_cast<double>(i % 7));
  return xyz;
}

TEST(Reprojection, EveryPointAsGdalTransformsItWithAnyThreadCount) {
  const auto xyz = utmPoints(150000); // more than two pieces of 65,536 points
  const auto direct = gdalTransform(32633, 4326);
  for (const int threads : {1, 3}) {
    std::vector<unsigned> ids(xyz.size());
    for (std::size_t i = 0; i < ids.size(); ++i)
      ids[i] = static_cast<unsigned>(i);
    auto grid = Tressel::PointCloudBuilder(xyz).addField("Id", ids).build(
        Tressel::tilePartition(xyz, 200.0));
    ReprojectionParameterBox box;
    box.inputScale = {0.01, 0.01, 0.01};
    box.threads = threads;
    const auto t = Raster::transformation("EPSG:32633", "EPSG:4326");
    ASSERT_TRUE(reproject(grid, box, t.factory)) << box.message;
    EXPECT_EQ(t.target.epsg, 4326);
    std::size_t checked = 0;
    const auto positions = grid->CartesianPositions();
    for (const auto& slot : fragmentsOf(*positions)) {
      const auto moved = fragmentArray<point>(*positions, slot);
      const auto id = fragmentArray<unsigned>(*findOptionalField(grid, "Id"), slot);
      for (std::size_t i = 0; i < moved->size(); ++i, ++checked) {
        point p = xyz[(*id)[i]];
        ASSERT_TRUE(direct->Transform(1, &p.x, &p.y, &p.z));
        ASSERT_EQ((*moved)[i].x, p.x);
        ASSERT_EQ((*moved)[i].y, p.y);
      }
    }
    EXPECT_EQ(checked, xyz.size());
    // 0.01 m is about 9e-8 degrees of latitude: a tenth of it rounds down to 1e-9.
    EXPECT_DOUBLE_EQ(box.scale[0], 1e-9);
    EXPECT_DOUBLE_EQ(box.scale[2], 0.001);
    EXPECT_DOUBLE_EQ(box.offset[1], 36.0);
  }
}

TEST(Reprojection, RecordsAreWktForLas14AndGeoKeysBefore) {
  const auto cs =
      *Raster::coordinateSystemOfWkt(Raster::transformation("EPSG:4326", "EPSG:25832").target.wkt);
  Las::FileInfo info;
  info.vlrs.push_back({0, "LASF_Projection", 34735, "", {1, 0}});
  Raster::setCoordinateSystem(info, cs);
  ASSERT_EQ(info.vlrs.size(), 1u);
  EXPECT_EQ(info.vlrs[0].recordId, 2112);
  EXPECT_TRUE(info.header.globalEncoding & 16);
  EXPECT_EQ(Raster::coordinateSystemOf(info.header, info.vlrs, {})->epsg, 25832);

  info.header.versionMinor = 2;
  info.header.globalEncoding = 16;
  Raster::setCoordinateSystem(info, cs);
  ASSERT_EQ(info.vlrs.size(), 1u);
  EXPECT_EQ(info.vlrs[0].recordId, 34735);
  EXPECT_FALSE(info.header.globalEncoding & 16);
  // GDAL reads the keys back as the same system.
  EXPECT_EQ(Raster::coordinateSystemOf(info.header, info.vlrs, {})->epsg, 25832);

  Raster::CoordinateSystem custom = cs;
  custom.epsg = 0;
  EXPECT_THROW(Raster::setCoordinateSystem(info, custom), Las::Error);
}

class Polygons : public ScratchDirectory {};

TEST_F(Polygons, ALayerInLongitudeAndLatitudeIsCarriedIntoTheCloudsSystem) {
  const auto path = (dir / "area.geojson").string();
  std::ofstream(path) << R"({"type":"FeatureCollection","features":[
    {"type":"Feature","properties":{"k":1},"geometry":{"type":"Polygon","coordinates":
      [[[15.0,36.1],[15.01,36.1],[15.01,36.11],[15.0,36.1]]]}},
    {"type":"Feature","properties":{"k":2},"geometry":{"type":"MultiPolygon","coordinates":
      [[[[14.9,36.0],[14.91,36.0],[14.91,36.01],[14.9,36.0]]],
       [[[14.8,36.0],[14.81,36.0],[14.81,36.01],[14.8,36.0]]]]}}]})";
  const std::string utm = Raster::transformation("EPSG:4326", "EPSG:32633").target.wkt;
  const auto polygons = Raster::readPolygons(path, "", "k = 2", utm);
  ASSERT_EQ(polygons.size(), 2u);
  const auto direct = gdalTransform(4326, 32633);
  double x = 14.8, y = 36.0;
  ASSERT_TRUE(direct->Transform(1, &x, &y));
  EXPECT_NEAR(polygons[1].rings[0][0][0], x, 1e-6);
  EXPECT_NEAR(polygons[1].rings[0][0][1], y, 1e-6);
  EXPECT_EQ(Raster::readPolygons(path, "", "", "").size(), 3u);
  EXPECT_THROW(Raster::readPolygons(path, "", "no_such_field = 1", ""), Las::Error);
  EXPECT_THROW(Raster::readPolygons((dir / "none.gpkg").string(), "", "", ""), Las::Error);
}

} // namespace
