// SPDX-License-Identifier: BSD-3-Clause
// Tests of mapping prepared rasters onto clouds against a brute-force mapping of their own (the
// cell found from the raster's origin, the band rules written out), the file-list form, and the
// source-to-target field mapping against a scan over all source points.
#include "quorvel/core/core.hpp"
#include "quorvel/raster/raster.hpp"
#include "quorvel/raster/test_raster.hpp"
#include "support/brute_force.hpp"
#include "support/output.hpp"
#include "support/scratch_directory.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

namespace {

using namespace Quorvel;
using namespace TestRaster;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Box = MapRasterOnPointCloudParameterBox;

struct Cloud {
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  Tressel::Partition partition;
  StrongPtr<Grid> grid;
};

// Points over the raster and around it (some beyond every edge), heights around the ground,
// classes from a small set; fragments of 37 points.
Cloud cloudOver(const RasterShape& r, std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> x(r.origin.x - 3, r.origin.x + 2.0 * 8 + 3);
  std::uniform_real_distribution<double> y(r.origin.y - 3, r.origin.y + 2.0 * 6 + 3);
  std::uniform_real_distribution<double> dz(-1.0, 4.0);
  const unsigned char classes[] = {0, 1, 2, 3, 5, 7};
  Cloud c;
  for (std::size_t i = 0; i < n; ++i) {
    const double px = x(random), py = y(random);
    c.xyz.emplace_back(px, py, 50.0 + 0.1 * (px - r.origin.x) / 2 + dz(random));
    c.cls.push_back(classes[random() % 6]);
  }
  c.partition = Tressel::sequentialPartition(n, 37);
  c.grid = Tressel::PointCloudBuilder(c.xyz).addField("Classification", c.cls).build(c.partition);
  return c;
}

// The prepared values of the cell under p, found from the raster's origin: p lies in cell
// floor((p - origin + size / 2) / size) when that is a cell of the raster.
struct Cell {
  bool inside = false;
  unsigned char type = 0;
  double ground = 0, highest = 0, lowest = 0;
  vector plane;
};

Cell cellUnder(const Grid& raster, const RasterShape& r, const point& p) {
  Cell c;
  // A cell reaches half a cell beyond its centre on every side, the last ones too.
  const double qx = p.x + r.size / 2, qy = p.y + r.size / 2;
  const double endX = r.origin.x + r.size * static_cast<double>(r.width());
  const double endY = r.origin.y + r.size * static_cast<double>(r.depth());
  if (qx < r.origin.x || qy < r.origin.y || qx >= endX || qy >= endY)
    return c;
  const auto gx = static_cast<std::size_t>((qx - r.origin.x) / r.size);
  const auto gy = static_cast<std::size_t>((qy - r.origin.y) / r.size);
  c.inside = true;
  c.type = r.type(gx, gy);
  c.ground = static_cast<float>(r.height(gx, gy));
  c.highest = cellValue<float>(raster, "MaxGround", r, gx, gy);
  c.lowest = cellValue<float>(raster, "MinGround", r, gx, gy);
  c.plane = cellValue<vector>(raster, "PlanarRegression", r, gx, gy);
  return c;
}

// A band decided as defined: the plane test (unless stepping or planeless), then the ground test.
bool bandHolds(double low, double high, const Cell& cell, const point& p, bool step) {
  bool hit = false;
  if (!step && cell.plane.z < 1e7) {
    const double a = cell.plane.x, b = cell.plane.y;
    const double d = (p.z - (a * p.x + b * p.y + cell.plane.z)) / std::sqrt(a * a + b * b + 1);
    hit = low <= d && d <= high && p.z > cell.lowest + low && p.z < high + cell.highest;
  }
  return hit || (p.z > cell.ground + low && p.z < cell.ground + high);
}

std::vector<unsigned char> oracle(const Grid& raster, const RasterShape& r, const Cloud& cloud,
                                  const Box& box, const MultiRange<double>& computing) {
  std::vector<unsigned char> out = cloud.cls;
  for (std::size_t i = 0; i < out.size(); ++i) {
    unsigned char& c = out[i];
    const point& p = cloud.xyz[i];
    if (box.constantclasses.contains(c, 1e-9) || !computing.contains(c, 1e-9))
      continue;
    const Cell cell = cellUnder(raster, r, p);
    if (!cell.inside)
      continue;
    if (box.unclassify)
      c = 0;
    if (box.constantclasses.contains(c, 1e-9) || !computing.contains(c, 1e-9))
      continue;
    if (cell.type != 0 && cell.type != 4)
      continue;
    for (const HeightBand& band : box.assignment)
      if (bandHolds(band.low, band.high, cell, p, box.step))
        c = static_cast<unsigned char>(band.cls);
    for (const ClassConditionalBand& band : box.class_assignment)
      if (band.classFrom <= c && c <= band.classTo &&
          bandHolds(band.low, band.high, cell, p, box.step))
        c = static_cast<unsigned char>(band.cls);
  }
  return out;
}

std::vector<unsigned char> classesOf(const Cloud& cloud) {
  auto field = cloud.grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D)
                   ->findField("Classification");
  return Tressel::readField<unsigned char>(*field, cloud.partition);
}

class RasterMapping : public ScratchDirectory {
protected:
  void SetUp() override {
    ScratchDirectory::SetUp();
    writeRaster(file("dtm.h5"), shape);
    box = boxFor(shape);
    CaptureStdout();
    ASSERT_TRUE(prepareRaster(file("dtm.h5"), raster, box));
    GetCapturedStdout();
  }

  // Maps onto a fresh cloud and compares every class with the oracle's; returns the output.
  std::string expectOracle(unsigned seed, const MultiRange<double>& computing) {
    Cloud cloud = cloudOver(shape, 600, seed);
    CaptureStdout();
    EXPECT_TRUE(mapData(cloud.grid, raster, box));
    const std::string out = GetCapturedStdout();
    const auto expected = oracle(*raster, shape, cloud, box, computing);
    const auto got = classesOf(cloud);
    std::size_t changed = 0;
    for (std::size_t i = 0; i < got.size(); ++i) {
      EXPECT_EQ(int(got[i]), int(expected[i])) << "point " << i;
      changed += got[i] != cloud.cls[i];
    }
    EXPECT_GT(changed, 20u);
    return out;
  }

  RasterShape shape;
  Box box;
  StrongPtr<Grid> raster;
};

TEST_F(RasterMapping, BandsAssignClassesAsTheBruteForceMappingDoes) {
  const MultiRange<double> all("0:255");
  box.assignment = {{0.2, 1.5, 3}, {1.0, 3.0, 4}, {-0.5, 0.2, 2}};
  const std::string out = expectOracle(1, all);
  EXPECT_TRUE(holds(out, "computing classes: 0.000000:255.000000\n# of raster fragments: 2x2x1\n"
                         "multi index of raster: 4x3x1\n"));
  EXPECT_TRUE(holds(out, "mapData: 17 / 17            \r"));
  box.step = true;
  expectOracle(2, all);
  box.step = false;
  box.unclassify = true;
  expectOracle(3, all);
}

TEST_F(RasterMapping, ClassConditionalBandsNarrowTheClassesAndReadTheClassAnew) {
  // The first band turns class 1 into 5, which the second band (classes 4 to 6) then takes up.
  // The last band's class interval is written high to low: it widens the computing classes but
  // applies to no class.
  box.class_assignment = {
      {5, -1.0, 5.0, 1, 1}, {6, 1.0, 5.0, 4, 6}, {2, -1.0, 0.5, 0, 0}, {7, -9.0, 9.0, 6, 4}};
  const std::string out = expectOracle(4, MultiRange<double>("0,1,4:6"));
  EXPECT_TRUE(holds(out, "computing classes: 0.000000:255.000000\n--- 1 | 1\n--- 4 | 6\n"
                         "--- 0 | 0\n--- 6 | 4\ncomputing classes: 0.000000:0.000000,"
                         "1.000000:1.000000,4.000000:6.000000\n"));
}

TEST_F(RasterMapping, ConstantClassesStayEvenWhenUnclassifyingAndCollisionsAreReported) {
  box.assignment = {{100.0, 200.0, 9}}; // no point matches
  box.unclassify = true;
  box.constantclasses = MultiRange<double>("0");
  Cloud cloud = cloudOver(shape, 300, 5);
  CaptureStdout();
  ASSERT_TRUE(mapData(cloud.grid, raster, box));
  const std::string out = GetCapturedStdout();
  // Class 0 is constant and computing: points of class 0 in the first pass, unclassified points
  // in the second.
  EXPECT_TRUE(holds(out, "mapRasterOnPointCloud: ERROR: constant class ... but still computing "
                         "!? - class: 0\n"));
  EXPECT_TRUE(holds(out, "mapRasterOnPointCloud: ERROR CRC: constant class ... but still "
                         "computing !? - class: 0\n"));
  const auto got = classesOf(cloud);
  std::size_t zeroed = 0;
  for (std::size_t i = 0; i < got.size(); ++i) {
    const bool inside = cellUnder(*raster, shape, cloud.xyz[i]).inside;
    EXPECT_EQ(int(got[i]), inside ? 0 : int(cloud.cls[i])) << i;
    zeroed += inside && cloud.cls[i] != 0;
  }
  EXPECT_GT(zeroed, 50u);
}

TEST_F(RasterMapping, HeightsAboveTheCellPlaneWithMarksForPlanelessAndOutsidePoints) {
  box.height = true;
  Cloud cloud = cloudOver(shape, 500, 6);
  CaptureStdout();
  ASSERT_TRUE(mapData(cloud.grid, raster, box));
  GetCapturedStdout();
  auto field = cloud.grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D)
                   ->findField("CanopyHeight");
  ASSERT_TRUE(field);
  const auto heights = Tressel::readField<float>(*field, cloud.partition);
  EXPECT_EQ(classesOf(cloud), cloud.cls);
  std::size_t planeless = 0, outside = 0;
  for (std::size_t i = 0; i < heights.size(); ++i) {
    const point& p = cloud.xyz[i];
    const Cell cell = cellUnder(*raster, shape, p);
    if (!cell.inside) {
      EXPECT_TRUE(std::isnan(heights[i]));
      ++outside;
    } else if (cell.plane.z >= 1e7) {
      EXPECT_EQ(heights[i], -1000.0f);
      ++planeless;
    } else {
      const double a = cell.plane.x, b = cell.plane.y;
      const double d = (p.z - (a * p.x + b * p.y + cell.plane.z)) / std::sqrt(a * a + b * b + 1);
      EXPECT_FLOAT_EQ(heights[i], static_cast<float>(d)) << i;
    }
  }
  EXPECT_GT(planeless, 5u);
  EXPECT_GT(outside, 50u);
}

TEST_F(RasterMapping, CloudsWithoutChartOrPointsAreRefused) {
  auto bare = std::make_shared<Grid>("bare");
  CaptureStdout();
  EXPECT_FALSE(mapData(bare, raster, box));
  EXPECT_TRUE(holds(GetCapturedStdout(), "mapRasterOnPointCloud: ERROR: no world chart\n"));
  auto empty = Tressel::PointCloudBuilder({}).build(Tressel::Partition{});
  CaptureStdout();
  EXPECT_FALSE(mapData(empty, raster, box));
  EXPECT_TRUE(holds(GetCapturedStdout(), "mapRasterOnPointCloud: ERROR: pointcloud grid empty\n"));
}

std::string bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

TEST_F(RasterMapping, FileListWritesMappedFilesAndLeavesFailingOnesAlone) {
  Cloud cloud = cloudOver(shape, 400, 7);
  auto bundle = std::make_shared<Tressel::Bundle>();
  ASSERT_TRUE(bundle->bindToNew(file("a.h5"), nullptr));
  (*bundle)[0.0]->setGrid("cloud", cloud.grid);
  ASSERT_TRUE(bundle->save());
  {
    std::ofstream broken(file("b.h5"), std::ios::binary);
    broken << "not a bundle";
  }
  box.assignment = {{0.2, 1.5, 3}, {1.0, 3.0, 4}};
  CaptureStdout();
  EXPECT_FALSE(mapData({file("b.h5"), file("a.h5")}, file("dtm.h5"), box));
  const std::string out = GetCapturedStdout();
  EXPECT_TRUE(holds(out, "mapRasterOnPointCloud: ERROR: bundle file " + file("b.h5") +
                             ": not an HDF5 file\n"));
  EXPECT_EQ(bytesOf(file("b.h5")), "not a bundle");

  Tressel::Bundle loaded;
  ASSERT_TRUE(loaded.bindTo(file("a.h5"))) << loaded.lastError();
  auto grid = (*loaded.slices().front())["cloud"];
  auto field = grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D)
                   ->findField("Classification");
  EXPECT_EQ(Tressel::readField<unsigned char>(*field, cloud.partition),
            oracle(*raster, shape, cloud, box, MultiRange<double>("0:255")));

  CaptureStdout();
  EXPECT_FALSE(mapData({file("a.h5")}, file("missing.h5"), box));
  EXPECT_TRUE(holds(GetCapturedStdout(), "mapRasterOnPointCloud: ERROR: prepareraster failed\n"));
}

TEST_F(RasterMapping, SourceToTargetTakesTheNearestSourcePointWithinTheRadius) {
  Cloud source = cloudOver(shape, 80, 8);
  std::vector<float> values;
  for (std::size_t i = 0; i < source.xyz.size(); ++i)
    values.push_back(static_cast<float>(i) * 0.5f);
  source.grid = Tressel::PointCloudBuilder(source.xyz)
                    .addField("Height", values)
                    .build(Tressel::sequentialPartition(values.size(), 30));
  CaptureStdout();
  EXPECT_EQ(mapSourceToTarget(*source.grid, "Height", *raster, "Mapped", 1.5), "");
  const std::string out = GetCapturedStdout();
  EXPECT_TRUE(holds(out, "\tHave a scalar source height field\nbut grid is not uniform\n"));
  const auto everySource = BruteForce::indices(0, source.xyz.size());
  std::size_t found = 0;
  for (std::size_t gx = 0; gx < shape.width(); ++gx)
    for (std::size_t gy = 0; gy < shape.depth(); ++gy) {
      const point centre(shape.origin.x + shape.size * static_cast<double>(gx),
                         shape.origin.y + shape.size * static_cast<double>(gy), 0.0);
      const auto nearest = BruteForce::nearest(source.xyz, centre, 1.5 * 1.5, 2, everySource);
      const float expected = nearest ? values[nearest->second] : std::nanf("");
      const float got = cellValue<float>(*raster, "Mapped", shape, gx, gy);
      if (std::isnan(expected))
        EXPECT_TRUE(std::isnan(got)) << gx << "," << gy;
      else {
        EXPECT_EQ(got, expected) << gx << "," << gy;
        ++found;
      }
    }
  EXPECT_GT(found, 10u);

  // A cloud target has one-dimensional positions.
  CaptureStdout();
  EXPECT_EQ(mapSourceToTarget(*raster, "Height", *source.grid, "Ground", 1.0), "");
  EXPECT_TRUE(holds(GetCapturedStdout(),
                    "Dimension of Positions: 1 and TargetHeightF: 3 are not equal!\n"));
}

TEST(SourceToTarget, MissingInputsReturnTheirTexts) {
  Grid bare("bare");
  auto cloud = Tressel::PointCloudBuilder({point(0, 0, 0)}).build(Tressel::Partition{{0}});
  EXPECT_EQ(mapSourceToTarget(*cloud, "Height", bare, "Out", 1.0),
            "mapSourceToTarget::No target rep");
  EXPECT_EQ(mapSourceToTarget(bare, "Height", *cloud, "Out", 1.0),
            "mapSourceToTarget:No source rep");
  EXPECT_EQ(mapSourceToTarget(*cloud, "Height", *cloud, "Out", 1.0),
            "mapSourceToTarget: No source field: Height");
  auto noPositions = std::make_shared<Grid>("g");
  noPositions->makeCartesianRepresentation(3, Tressel::StandardCartesianChart3D);
  EXPECT_EQ(mapSourceToTarget(*cloud, "Height", *noPositions, "Out", 1.0),
            "mapSourceToTarget::No target field: TRESSEL_POSITIONS");
  EXPECT_EQ(mapSourceToTarget(*noPositions, "Height", *cloud, "Out", 1.0),
            "mapSourceToTarget::No source field: TRESSEL_POSITIONS");

  // A target fragment without positions, and a source whose field holds nothing, are reported
  // and passed over.
  auto rep = noPositions->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto positions = rep->makeField(rep->makeFieldID(Tressel::PositionsFieldName),
                                  rep->fragmentLayout(), &Tressel::TresselType<point>(), 3);
  positions->makeFragmentID("empty");
  auto source = Tressel::PointCloudBuilder({point(0, 0, 0)}).build(Tressel::Partition{{0}});
  auto sourceRep = source->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  sourceRep->makeField(sourceRep->makeFieldID("Height"), sourceRep->fragmentLayout(),
                       &Tressel::TresselType<float>(), 1);
  CaptureStdout();
  EXPECT_EQ(mapSourceToTarget(*source, "Height", *noPositions, "Out", 1.0), "");
  const std::string out = GetCapturedStdout();
  EXPECT_TRUE(holds(out, "Can not read mem array for source height\n"));
  EXPECT_TRUE(holds(out, "No target chunk points!?!\n"));
}

} // namespace
