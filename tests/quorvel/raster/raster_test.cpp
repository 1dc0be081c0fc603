// SPDX-License-Identifier: BSD-3-Clause
// Tests of raster preparation and mapping against computations of their own: planes fitted by
// Gaussian elimination about each cell, cells found from the raster's origin, the band rules
// written out from their definition, and the printed box and messages.
#include "quorvel/core/core.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/raster/raster.hpp"
#include "quorvel/raster/test_raster.hpp"
#include "support/output.hpp"
#include "support/scratch_directory.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::vector;
using Box = MapRasterOnPointCloudParameterBox;
using namespace TestRaster;

// Least-squares plane z = a x + b y + c through points, by Gaussian elimination about (x0, y0);
// returns the plane's a, b and its height at (x0, y0).
bool fitAbout(const std::vector<point>& pts, double x0, double y0, double out[3]) {
  double m[3][4] = {};
  for (const point& p : pts) {
    const double row[3] = {p.x - x0, p.y - y0, 1.0};
    for (int i = 0; i < 3; ++i) {
      for (int j = 0; j < 3; ++j)
        m[i][j] += row[i] * row[j];
      m[i][3] += row[i] * p.z;
    }
  }
  for (int c = 0; c < 3; ++c) {
    int pivot = c;
    for (int r = c + 1; r < 3; ++r)
      if (std::fabs(m[r][c]) > std::fabs(m[pivot][c]))
        pivot = r;
    if (std::fabs(m[pivot][c]) < 1e-9)
      return false;
    std::swap(m[c], m[pivot]);
    for (int r = 0; r < 3; ++r)
      if (r != c) {
        const double f = m[r][c] / m[c][c];
        for (int k = c; k < 4; ++k)
          m[r][k] -= f * m[c][k];
      }
  }
  for (int i = 0; i < 3; ++i)
    out[i] = m[i][3] / m[i][i];
  return true;
}

class RasterPreparation : public ScratchDirectory {};

TEST_F(RasterPreparation, EveryGroundCellGetsThePlaneAndExtremesOfItsBlockInsideItsFragment) {
  const RasterShape r;
  writeRaster(file("dtm.h5"), r);
  Box box = boxFor(r);
  StrongPtr<Grid> raster;
  CaptureStdout();
  ASSERT_TRUE(prepareRaster(file("dtm.h5"), raster, box));
  const std::string out = GetCapturedStdout();
  EXPECT_TRUE(holds(out, "raster bbox: (1000 ,2000 ,0) | (1014 ,2010 ,0)\n"));
  EXPECT_TRUE(holds(out, "PlanarRegressionAndMaxGround - finished\n"));
  ASSERT_TRUE(box.raster_bbox);
  EXPECT_EQ(box.raster_bbox->max().x, 1014.0);

  std::size_t planes = 0, groundless = 0;
  for (std::size_t gx = 0; gx < r.width(); ++gx)
    for (std::size_t gy = 0; gy < r.depth(); ++gy) {
      const auto plane = cellValue<vector>(*raster, "PlanarRegression", r, gx, gy);
      const float hi = cellValue<float>(*raster, "MaxGround", r, gx, gy);
      const float lo = cellValue<float>(*raster, "MinGround", r, gx, gy);
      const unsigned char type = r.type(gx, gy);
      if (type != 0 && type != 4) {
        EXPECT_EQ(plane.z, NoPlaneC) << gx << "," << gy;
        EXPECT_TRUE(std::isnan(hi) && std::isnan(lo));
        ++groundless;
        continue;
      }
      // The block within the cell's own fragment.
      std::vector<point> block;
      float highest = -1e6f, lowest = 1e6f;
      const std::size_t fx = gx / r.cells[0] * r.cells[0], fy = gy / r.cells[1] * r.cells[1];
      for (std::size_t x = fx; x < fx + r.cells[0]; ++x)
        for (std::size_t y = fy; y < fy + r.cells[1]; ++y) {
          const unsigned char t = r.type(x, y);
          if ((t != 0 && t != 4) || x + 1 < gx || x > gx + 1 || y + 1 < gy || y > gy + 1)
            continue;
          const float h = static_cast<float>(r.height(x, y));
          block.emplace_back(r.origin.x + static_cast<double>(x) * r.size,
                             r.origin.y + static_cast<double>(y) * r.size, h);
          highest = std::max(highest, h);
          lowest = std::min(lowest, h);
        }
      EXPECT_EQ(hi, highest);
      EXPECT_EQ(lo, lowest);
      EXPECT_GE(hi, static_cast<float>(r.height(gx, gy)));
      const double cx = r.origin.x + static_cast<double>(gx) * r.size;
      const double cy = r.origin.y + static_cast<double>(gy) * r.size;
      double expected[3];
      if (!fitAbout(block, cx, cy, expected)) {
        EXPECT_EQ(plane.z, NoPlaneC) << gx << "," << gy;
        continue;
      }
      ++planes;
      EXPECT_NEAR(plane.x, expected[0], 1e-6);
      EXPECT_NEAR(plane.y, expected[1], 1e-6);
      EXPECT_NEAR(getHeightFromPlane(plane, cx, cy), expected[2], 1e-6) << gx << "," << gy;
    }
  EXPECT_GT(planes, 30u);
  EXPECT_GT(groundless, 3u);
}

TEST_F(RasterPreparation, MissingFilesGridsAndFieldsAreReported) {
  Box box;
  StrongPtr<Grid> raster;
  CaptureStdout();
  EXPECT_FALSE(prepareRaster(file("none.h5"), raster, box));
  EXPECT_TRUE(holds(GetCapturedStdout(), "mapRasterOnPointCloud: prepareRaster, ERROR: no file " +
                                             file("none.h5") + " found\n"));

  const RasterShape r;
  writeRaster(file("untyped.h5"), r, false);
  CaptureStdout();
  EXPECT_FALSE(prepareRaster(file("untyped.h5"), raster, box));
  EXPECT_EQ(GetCapturedStdout(), "mapRasterOnPointCloud: prepareRaster, ERROR: no f_celltype "
                                 "found\n");

  writeRaster(file("dtm.h5"), r);
  box.heightfieldname = "Elevation";
  CaptureStdout();
  EXPECT_FALSE(prepareRaster(file("dtm.h5"), raster, box));
  EXPECT_EQ(GetCapturedStdout(), "mapRasterOnPointCloud: ERROR: no f_height found\n");

  auto empty = std::make_shared<Tressel::Bundle>();
  ASSERT_TRUE(empty->bindToNew(file("empty.h5"), nullptr));
  (*empty)[0.0];
  ASSERT_TRUE(empty->save());
  CaptureStdout();
  EXPECT_FALSE(prepareRaster(file("empty.h5"), raster, box));
  EXPECT_EQ(GetCapturedStdout(), "mapRasterOnPointCloud: prepareRaster, ERROR: no grids in file " +
                                     file("empty.h5") + " found\n");
}

TEST(RasterBox, PrintsEveryFieldInItsForm) {
  Box box;
  box.constantclasses = Vantor::MultiRange<double>("2,9");
  box.cellsize = {0.5, 2, 0};
  box.rastersize = {100, 200, 1};
  box.height = true;
  box.heightfieldname = "Z";
  box.raster_bbox = std::make_shared<Vantor::BoundingBox>(point(1, 2, 3), point(10.5, 20.25, 3));
  box.assignment = {{0.5, 2, 3}, {-1, 0.25, 7}};
  CaptureStdout();
  box.print();
  EXPECT_EQ(GetCapturedStdout(), "constantclasses: 2.000000:2.000000,9.000000:9.000000\n"
                                 "cellsize: (0.5 ,2 ,0)\n"
                                 "height: 1\n"
                                 "step: 0\n"
                                 "heightfieldname: Z\n"
                                 "unclassify: 0\n"
                                 "rastersize: 100x200x1\n"
                                 "raster bbox: (1 ,2 ,3) | (10.5 ,20.25 ,3)\n"
                                 "assignment: \n"
                                 "0.5:2=3\n"
                                 "-1:0.25=7\n");
}

TEST(RasterBandRules, BothTestsWithStrictBoundsAndThePlanelessCell) {
  const vector flat(0, 0, 10.0); // z = 10 everywhere
  std::uint8_t cls = 1;
  // Ground-height test alone: 10 + 0.5 < z < 10 + 2, strictly.
  mapClassification(0.5, 2.0, vector(0, 0, NoPlaneC), point(0, 0, 10.5), 0, 0, 10.0, 5, cls);
  EXPECT_EQ(cls, 1);
  mapClassification(0.5, 2.0, vector(0, 0, NoPlaneC), point(0, 0, 12.0), 0, 0, 10.0, 5, cls);
  EXPECT_EQ(cls, 1);
  mapClassification(0.5, 2.0, vector(0, 0, NoPlaneC), point(0, 0, 11.0), 0, 0, 10.0, 5, cls);
  EXPECT_EQ(cls, 5);
  // Plane test: distance 1 within [0.5, 2] and minGround + low < z < high + maxGround, while the
  // ground-height test (ground 0) fails.
  cls = 1;
  mapClassification(0.5, 2.0, flat, point(0, 0, 11.0), 10.0, 10.0, 0.0, 6, cls);
  EXPECT_EQ(cls, 6);
  // Plane test with z at exactly minGround + low: not assigned.
  cls = 1;
  mapClassification(0.5, 2.0, flat, point(0, 0, 11.0), 11.0, 10.5, 0.0, 6, cls);
  EXPECT_EQ(cls, 1);
  // The distance bounds are inclusive: distance exactly 2.
  mapClassification(0.5, 2.0, flat, point(0, 0, 12.0), 11.0, 9.0, 0.0, 6, cls);
  EXPECT_EQ(cls, 6);
  // A plane c of exactly 1e7 is no plane: the plane test is skipped; just below it counts.
  cls = 1;
  const point high(0, 0, 1e7 + 1);
  mapClassification(0.5, 2.0, vector(0, 0, 1e7), high, 1e7, 1e7, 0.0, 6, cls);
  EXPECT_EQ(cls, 1);
  mapClassification(0.5, 2.0, vector(0, 0, 1e7 - 1), high, 1e7, 1e7, 0.0, 6, cls);
  EXPECT_EQ(cls, 6);
  // The class is cut to 8 bits.
  mapClassification(0.5, 2.0, flat, point(0, 0, 11.0), 10.0, 10.0, 0.0, 258, cls);
  EXPECT_EQ(cls, 2);

  cls = 1;
  mapClassificationStep(0.5, 2.0, point(0, 0, 10.5), 10.0, 9, cls);
  mapClassificationStep(0.5, 2.0, point(0, 0, 12.0), 10.0, 9, cls);
  EXPECT_EQ(cls, 1);
  mapClassificationStep(0.5, 2.0, point(0, 0, 11.9), 10.0, 9, cls);
  EXPECT_EQ(cls, 9);
}

} // namespace
