// SPDX-License-Identifier: BSD-3-Clause
// Tests of ground rasters against the slope of a synthetic sloped ground: measured cells at the
// lowest ground point, gaps filled from their rings, cells beyond the rings without data; the
// refusals with their messages and the printed box.
#include "quorvel/raster/raster.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::point;

// The raster's "CoordinateSystem" attribute.
std::string coordinateSystemOf(const Tressel::Grid& raster) {
  const auto chunk =
      Basalt::chunkCast<std::uint8_t>(raster.attributes().getAttribute("CoordinateSystem"));
  return chunk ? std::string(chunk->view().begin(), chunk->view().end()) : std::string();
}

// Ground on the slope z = 0.1 x + 0.05 y + 100, one point in every other 1 m cell of a 40 x 30 m
// area (so every second cell is a gap) with vegetation (class 5) above it; a far corner point of
// class 1 widens the extent beyond any fill.
Basalt::StrongPtr<Tressel::Grid> slopedCloud() {
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  for (int j = 0; j < 30; ++j)
    for (int i = 0; i < 40; i += 2) {
      const double x = 500 + i + 0.3, y = 800 + j + 0.6;
      xyz.emplace_back(x, y, 0.1 * x + 0.05 * y + 100);
      cls.push_back(2);
      xyz.emplace_back(x, y, 0.1 * x + 0.05 * y + 104);
      cls.push_back(5);
    }
  xyz.emplace_back(560.5, 800.5, 0.0);
  cls.push_back(1);
  return Tressel::PointCloudBuilder(xyz)
      .addField("Classification", cls)
      .build(Tressel::sequentialPartition(xyz.size(), 0));
}

TEST(GroundRasters, FollowTheSlopeAndFillTheirGaps) {
  GroundRasterParameterBox box;
  box.fragment_cells = 16;
  box.fill_rings = 2;
  auto raster = groundRaster(*slopedCloud(), box, "WKT of the cloud");
  const auto view = Tressel::uniformGridView(*raster);
  ASSERT_TRUE(view);
  EXPECT_EQ(view->origin, point(500.5, 800.5, 0));
  const auto types = Tressel::uniformCells<std::uint8_t>(*raster, "CellType");
  const auto heights = Tressel::uniformCells<float>(*raster, "Height");
  // One column and one row past the cells of the easternmost and northernmost points (the layout
  // of earlier rasters); nothing beyond.
  EXPECT_EQ(view->total, Tressel::MultiIndex<3>(62, 31, 1));
  const std::size_t width = view->total[0];
  EXPECT_EQ(types.size(), 62u * 31u);
  std::size_t filled = 0, empty = 0;
  for (std::size_t j = 0; j < 30; ++j)
    for (std::size_t i = 0; i < 61; ++i) {
      const std::size_t k = j * width + i;
      const double x = 500 + static_cast<double>(i), y = 800 + static_cast<double>(j);
      if (i < 40 && i % 2 == 0) {
        ASSERT_EQ(types[k], Raster::Measured) << i << "," << j;
        EXPECT_FLOAT_EQ(heights[k], static_cast<float>(0.1 * (x + 0.3) + 0.05 * (y + 0.6) + 100));
      } else if (i <= 40) {
        // Between two measured cells, the weighted mean of its ring is the slope itself (up to
        // the rows at the edges, whose ring is lopsided in y); beyond the last measured column
        // (38) the cells take that column's heights.
        ASSERT_EQ(types[k], Raster::Filled) << i << "," << j;
        const double source = i < 39 ? x : 538.0;
        EXPECT_NEAR(heights[k], 0.1 * (source + 0.3) + 0.05 * (y + 0.6) + 100, 0.05) << i;
        ++filled;
      } else {
        EXPECT_EQ(types[k], Raster::NoData) << i << "," << j;
        ++empty;
      }
    }
  EXPECT_EQ(filled, 21u * 30u);
  EXPECT_GT(empty, 0u);
  EXPECT_EQ(coordinateSystemOf(*raster), "WKT of the cloud");
}

TEST(GroundRasters, RefuseWhatTheyCannotMakeWithTheReason) {
  const auto refused = [](const Tressel::Grid& cloud, const GroundRasterParameterBox& box) {
    try {
      groundRaster(cloud, box);
    } catch (const std::runtime_error& e) {
      return std::string(e.what());
    }
    return std::string("made");
  };
  GroundRasterParameterBox box;
  box.classes = Vantor::MultiRange<double>("9");
  EXPECT_EQ(refused(*slopedCloud(), box),
            "ground raster: no point of the classes 9.000000:9.000000 (with finite coordinates "
            "and a \"Classification\")");
  box = {};
  box.cell_size = 0;
  EXPECT_EQ(refused(*slopedCloud(), box), "ground raster: the cell size must be a positive number");
  box.cell_size = 1e-6; // 6e7 x 3e7 cells, far beyond the default budget
  EXPECT_NE(refused(*slopedCloud(), box)
                .find("exceed the budget of 268435456 cells (set QUORVEL_MAX_CELLS to allow more)"),
            std::string::npos);
  // Cells of 0.5: x from floor(500.3 / 0.5) = 1000 to floor(560.5 / 0.5) + 1 = 1122, y from 1601
  // to 1660 (one column and row past the points): 123 x 60 = 7380 cells, refused by a budget of
  // one cell less.
  box.cell_size = 0.5;
  ::setenv("QUORVEL_MAX_CELLS", "7379", 1);
  EXPECT_EQ(refused(*slopedCloud(), box), "ground raster: 123 x 60 cells (7380) exceed the budget "
                                          "of 7379 cells (set QUORVEL_MAX_CELLS to allow more)");
  ::setenv("QUORVEL_MAX_CELLS", "7380", 1);
  EXPECT_EQ(refused(*slopedCloud(), box), "made");
  ::setenv("QUORVEL_MAX_CELLS", "7e3", 1);
  EXPECT_EQ(refused(*slopedCloud(), box),
            "QUORVEL_MAX_CELLS=\"7e3\" is not a whole number of cells above 0");
  ::unsetenv("QUORVEL_MAX_CELLS");
  box = {};
  box.method = "spline";
  EXPECT_EQ(refused(*slopedCloud(), box),
            "ground raster: the method \"spline\" is none of lowest, tin, idw");
}

TEST(GroundRasters, BoxPrintsEveryFieldInItsForm) {
  GroundRasterParameterBox box;
  box.classes = Vantor::MultiRange<double>("2,8");
  box.cell_size = 0.5;
  CaptureStdout();
  box.print();
  EXPECT_EQ(GetCapturedStdout(), "cell size: 0.5\n"
                                 "classes: 2.000000:2.000000,8.000000:8.000000\n"
                                 "method: lowest\n"
                                 "fill rings: 5\n"
                                 "fragment cells: 256\n"
                                 "height field: Height\n");
}

} // namespace
