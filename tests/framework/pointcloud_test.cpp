// SPDX-License-Identifier: BSD-3-Clause
// Tests of building point clouds from plain arrays and reading fields back.
#include "tressel/bounding_boxes.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {

using namespace Tressel;

std::string errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "no error";
}

TEST(PointCloudBuilder, BuildsFragmentsFromAPartitionAndReadsBack) {
  const std::vector<point> xyz = {{0, 0, 0}, {1, 0, 1}, {2, 0, 2}, {3, 0, 3}, {4, 0, 4}};
  const std::vector<unsigned char> cls = {1, 2, 3, 4, 5};
  const std::vector<float> amplitude = {0.5f, 1.5f, 2.5f, 3.5f, 4.5f};
  const Partition partition = {{4, 0}, {2}, {1, 3}};

  PointCloudBuilder builder(xyz);
  builder.addField("Classification", cls).addField("Amplitude", amplitude);
  auto grid = builder.build(partition, "demo");
  EXPECT_EQ(grid->Name(), "demo");

  auto positions = grid->CartesianPositions();
  ASSERT_NE(positions, nullptr);
  ASSERT_EQ(positions->nFragments(), 3u);
  auto classes = (*grid)(StandardCartesianChart3D, "Classification");
  ASSERT_NE(classes, nullptr);
  EXPECT_EQ(classes->getFragmentIDCollection(), positions->getFragmentIDCollection());
  EXPECT_EQ(classes->getElementType()->name(), "uint8");

  EXPECT_EQ(readField<unsigned char>(*classes), (std::vector<unsigned char>{5, 1, 3, 2, 4}));
  EXPECT_EQ(readField<unsigned char>(*classes, partition), cls);
  EXPECT_EQ(readField<float>(*(*grid)(StandardCartesianChart3D, "Amplitude"), partition),
            amplitude);
  EXPECT_EQ(readField<point>(*positions, partition), xyz);
  EXPECT_THROW(readField<float>(*classes), std::runtime_error);

  // Every fragment carries its stored bounding box.
  auto first = positions->getFragmentIDs().findFragmentID(0u);
  auto box = getFragmentBBox(first, nullptr, positions);
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(box->min(), (point{0, 0, 0}));
  EXPECT_EQ(box->max(), (point{4, 0, 4}));
}

TEST(PointCloudBuilder, RefusesInconsistentInputWithAClearMessage) {
  PointCloudBuilder builder({{0, 0, 0}, {1, 1, 1}, {2, 2, 2}});
  EXPECT_EQ(errorOf([&] {
              builder.addField("Intensity", std::vector<unsigned short>{1, 2});
            }),
            "field \"Intensity\" has 2 values for 3 points");
  EXPECT_EQ(errorOf([&] {
              builder.build({{0, 1}, {1, 2}});
            }),
            "point 1 is in more than one fragment");
  EXPECT_EQ(errorOf([&] { builder.build({{0, 1}}); }), "point 2 is in no fragment");
  EXPECT_EQ(errorOf([&] { builder.build({{0, 1, 2}, {3}}); }), "fragment 1 names point 3 of 3");
}

TEST(PointCloudBuilder, ZeroPointsGiveTypedFieldsWithoutFragments) {
  PointCloudBuilder builder({});
  builder.addField("Classification", std::vector<unsigned char>{});
  auto grid = builder.build({});
  auto positions = grid->CartesianPositions();
  ASSERT_NE(positions, nullptr);
  EXPECT_EQ(positions->nFragments(), 0u);
  EXPECT_EQ(positions->getElementType()->name(), "point");
  EXPECT_TRUE(
      readField<unsigned char>(*(*grid)(StandardCartesianChart3D, "Classification")).empty());
}

TEST(Partitions, SequentialAndTiled) {
  EXPECT_EQ(sequentialPartition(5, 2), (Partition{{0, 1}, {2, 3}, {4}}));
  EXPECT_EQ(sequentialPartition(3, 0), (Partition{{0, 1, 2}}));
  EXPECT_TRUE(sequentialPartition(0, 4).empty());

  const double nan = std::nan("");
  const std::vector<point> xyz = {{0.5, 0.5, 0}, {10.5, 0.2, 0}, {0.1, 10.5, 0},
                                  {nan, 1, 0},   {1.5, 1.5, 0},  {10.5, 10.5, 0}};
  // Anchored at the smallest finite x and y (0.1, 0.2): rows by y, then columns by x.
  EXPECT_EQ(tilePartition(xyz, 10.0), (Partition{{0, 4}, {1}, {2}, {5}, {3}}));
  EXPECT_EQ(tilePartition(xyz, 0.0), (Partition{{0, 1, 2, 3, 4, 5}}));
  EXPECT_EQ(tilePartition(xyz, nan), (Partition{{0, 1, 2, 3, 4, 5}}));
  EXPECT_TRUE(tilePartition({}, 1.0).empty());

  // Tiny tiles over a wide area: too many tiles to count densely, the same order all the same.
  const std::vector<point> wide = {
      {0, 0, 0}, {1000, 0, 0}, {0, 1000, 0}, {1000, 1000, 0}, {0, 0, 5}};
  EXPECT_EQ(tilePartition(wide, 1e-6), (Partition{{0, 4}, {1}, {2}, {3}}));
}

// Tiles by point count stay about as many as the count asks for, whatever the shape: a square
// area, a strip with one constant coordinate, a single position, NaN among the points.
TEST(Partitions, TilesByCountStayFewOnDegenerateExtents) {
  const auto fragmentsOf = [](const std::vector<point>& xyz, std::size_t perTile) {
    const Partition tiles = tilePartitionByCount(xyz, perTile);
    std::size_t points = 0;
    for (const auto& tile : tiles)
      points += tile.size();
    EXPECT_EQ(points, xyz.size());
    return tiles.size();
  };
  std::vector<point> square, strip, column, one;
  for (int i = 0; i < 40000; ++i) {
    square.push_back({double(i % 200), double(i / 200), 0});
    strip.push_back({5.0, i * 0.01, 0}); // constant x
    column.push_back({5.0, 3.0, i * 0.01});
  }
  EXPECT_EQ(fragmentsOf(square, 10000), 4u);
  EXPECT_EQ(fragmentsOf(strip, 10000), 4u);
  EXPECT_EQ(fragmentsOf(column, 10000), 1u);
  strip.push_back({std::nan(""), 1.0, 0});
  EXPECT_EQ(fragmentsOf(strip, 10000), 6u); // five tiles for 40,001 points, the NaN apart
}

} // namespace
