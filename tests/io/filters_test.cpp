// SPDX-License-Identifier: BSD-3-Clause
// Tests of what the filters take from GDAL: reprojected clouds against GDAL's own transform
// called here point by point, the records of the new coordinate system, and polygons of a
// GeoJSON file in another system carried into the cloud's.
#include "io/raster.hpp"

#include "quorvel/core/core.hpp"
#include "quorvel/filters/detail/approximation.hpp"
#include "support/scratch_directory.hpp"
#include "tressel/point_cloud.hpp"

#include <ogr_spatialref.h>

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <random>

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
    box.exact = true;
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

// n points spread at random over the box lo..hi.
std::vector<point> randomPoints(std::size_t n, const point& lo, const point& hi) {
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> unit(0.0, 1.0);
  std::vector<point> xyz(n);
  for (point& p : xyz)
    for (int c = 0; c < 3; ++c)
      p[c] = lo[c] + (hi[c] - lo[c]) * unit(random);
  return xyz;
}

struct ApproximationCase {
  int from, to;
  point lo, hi;
  std::array<double, 3> tolerance;
};

// Interpolated points against GDAL's transform of each: over the 9 E meridian between UTM
// zones 32 and 33 (from zone 33, 6 degrees off its own), 40 km of UTM into degrees, and
// longitude, latitude and ellipsoidal height into geocentric coordinates, where the height
// moves x and y.
TEST(Reprojection, InterpolatedPointsAreWithinTheToleranceOfExactTransforms) {
  const ApproximationCase cases[] = {
      {32633, 32632, {40000, 5.30e6, 100}, {44000, 5.304e6, 900}, {1e-6, 1e-6, 1e-6}},
      {32633, 4326, {480000, 5.40e6, 0}, {520000, 5.44e6, 50}, {1e-11, 1e-11, 1e-5}},
      {4979, 4978, {11.8, 47.9, -50}, {12.2, 48.3, 3000}, {1e-5, 1e-5, 1e-5}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.from) + " to " + std::to_string(c.to));
    const auto t =
        Raster::transformation("EPSG:" + std::to_string(c.from), "EPSG:" + std::to_string(c.to));
    const detail::ApproximateTransform approximation(c.lo, c.hi, c.tolerance, 100000, t.factory());
    // Interpolated almost everywhere, so that the comparison tests the interpolants.
    EXPECT_GT(approximation.interpolatedCells(), 0u);
    EXPECT_EQ(approximation.exactCells(), 0u);
    auto xyz = randomPoints(20000, c.lo, c.hi);
    xyz.push_back(c.lo);
    xyz.push_back(c.hi);
    std::vector<double> x, y, z;
    for (const point& p : xyz)
      x.push_back(p.x), y.push_back(p.y), z.push_back(p.z);
    ASSERT_TRUE(approximation.apply(x.size(), x.data(), y.data(), z.data(), t.factory()));
    const auto direct = gdalTransform(c.from, c.to);
    for (std::size_t i = 0; i < xyz.size(); ++i) {
      point p = xyz[i];
      ASSERT_TRUE(direct->Transform(1, &p.x, &p.y, &p.z));
      ASSERT_LE(std::abs(x[i] - p.x), c.tolerance[0]) << i;
      ASSERT_LE(std::abs(y[i] - p.y), c.tolerance[1]) << i;
      ASSERT_LE(std::abs(z[i] - p.z), c.tolerance[2]) << i;
    }
  }
}

// Points outside the extent, and every point when the budget does not pay for one cell, go
// through the exact transform: the same bits as GDAL's.
TEST(Reprojection, PointsTheCellsDoNotCoverAreTransformedExactly) {
  const auto t = Raster::transformation("EPSG:32633", "EPSG:4326");
  const auto direct = gdalTransform(32633, 4326);
  const point lo(500000, 5.4e6, 0), hi(501000, 5.401e6, 10);
  const std::array<double, 3> tolerance{1e-11, 1e-11, 1e-5};
  for (const std::size_t budget : {std::size_t{0}, std::size_t{100000}}) {
    const detail::ApproximateTransform approximation(lo, hi, tolerance, budget, t.factory());
    EXPECT_EQ(approximation.interpolatedCells(), budget ? 1u : 0u);
    const point in[] = {{499000, 5.4e6, 5}, {500500, 5.4005e6, 5}};
    double x[] = {in[0].x, in[1].x}, y[] = {in[0].y, in[1].y}, z[] = {in[0].z, in[1].z};
    ASSERT_TRUE(approximation.apply(2, x, y, z, t.factory()));
    for (std::size_t i = 0; i < 2; ++i) {
      point p = in[i];
      ASSERT_TRUE(direct->Transform(1, &p.x, &p.y, &p.z));
      if (i == 0 || budget == 0) {
        EXPECT_EQ(x[i], p.x);
        EXPECT_EQ(y[i], p.y);
      }
      EXPECT_NEAR(x[i], p.x, 1e-11);
      EXPECT_NEAR(y[i], p.y, 1e-11);
    }
  }
}

// The approximation through reproject(): the same coordinates on one thread and three, within
// a hundredth of the chosen scale of each exact one.
TEST(Reprojection, ApproximatedCloudDoesNotDependOnTheThreadCount) {
  const auto xyz = randomPoints(150000, {700000, 5.3e6, 0}, {760000, 5.36e6, 500});
  std::vector<std::vector<point>> results;
  for (const int threads : {1, 3}) {
    auto grid = Tressel::PointCloudBuilder(xyz).build(Tressel::sequentialPartition(xyz.size(), 0));
    ReprojectionParameterBox box;
    box.threads = threads;
    const auto t = Raster::transformation("EPSG:32632", "EPSG:32633");
    ASSERT_TRUE(reproject(grid, box, t.factory)) << box.message;
    EXPECT_DOUBLE_EQ(box.scale[0], 1e-4);
    const auto positions = grid->CartesianPositions();
    const auto moved = fragmentArray<point>(*positions, fragmentsOf(*positions).at(0));
    results.emplace_back(moved->data(), moved->data() + moved->size());
  }
  ASSERT_EQ(results[0].size(), xyz.size());
  const auto direct = gdalTransform(32632, 32633);
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    ASSERT_EQ(results[0][i], results[1][i]) << i;
    point p = xyz[i];
    ASSERT_TRUE(direct->Transform(1, &p.x, &p.y, &p.z));
    ASSERT_LE(std::abs(results[0][i].x - p.x), 1e-6) << i;
    ASSERT_LE(std::abs(results[0][i].y - p.y), 1e-6) << i;
    ASSERT_EQ(results[0][i].z, p.z) << i; // heights pass through
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
