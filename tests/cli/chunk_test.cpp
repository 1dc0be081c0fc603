// SPDX-License-Identifier: BSD-3-Clause
// One chunk of a catalogue: its own points and a buffer read from two files, a stage run on them
// all, and only its own points written, each with the value a brute-force computation over both
// files gives.
#include "cli/chunk.hpp"
#include "io/las.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace Quorvel;
namespace fs = std::filesystem;
using Point = Vantor::PhysicalSpace::point;

struct Folder {
  fs::path path = fs::temp_directory_path() / ("chunk-test-" + std::to_string(::getpid()));
  Folder() { fs::create_directories(path); }
  ~Folder() { fs::remove_all(path); }
  std::string operator/(const std::string& name) const { return (path / name).string(); }
};

// Points of x in [x0, x0 + 10) on a jittered grid, z a bumpy surface; GpsTime numbers them.
std::vector<Point> strip(double x0, std::vector<double>& ids) {
  std::vector<Point> xyz;
  for (int i = 0; i < 20; ++i)
    for (int j = 0; j < 20; ++j) {
      const double x = x0 + 0.5 * i + 0.0131 * ((i * 7 + j * 3) % 5);
      const double y = 0.5 * j + 0.0173 * ((i * 5 + j) % 7);
      xyz.push_back({x, y, 3 * std::sin(x) + std::cos(1.7 * y)});
      ids.push_back(static_cast<double>(ids.size()));
    }
  return xyz;
}

// Writes the points as LAS and gives them back as the file holds them (on its scale).
std::vector<Point> writeLas(const std::string& path, const std::vector<Point>& xyz,
                            std::vector<double> ids) {
  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("GpsTime", std::move(ids));
  Las::write(path, *builder.build(Tressel::sequentialPartition(xyz.size(), xyz.size())));
  return Tressel::readField<Point>(*Las::read(path).grid->CartesianPositions());
}

std::vector<float> heightsOf(const std::string& path) {
  const auto grid = Las::read(path).grid;
  return Tressel::readField<float>(*(*grid)("StandardCartesianChart3D", "RelativeHeight"));
}

TEST(CatalogChunk, OwnPointsTakeTheWholeAreasValues) {
  Folder folder;
  std::vector<double> ids;
  const auto inA = strip(0, ids);
  const std::size_t split = ids.size();
  const auto inB = strip(10, ids);
  const auto a = writeLas(folder / "a.las", inA, {ids.begin(), ids.begin() + split});
  const auto b = writeLas(folder / "b.las", inB, {ids.begin() + split, ids.end()});
  std::ofstream(folder / "p.json") << R"(["ignored.las", {"command": "relheight",
    "half-width": 1.5}, "ignored-too.las"])";
  std::vector<Point> all = a;
  all.insert(all.end(), b.begin(), b.end());
  // The whole area as one chunk: the values the chunks must give.
  Cli::ChunkJob whole{folder / "p.json",
                      {folder / "a.las", folder / "b.las"},
                      {-5, -5, 25, 15, {}},
                      std::nullopt,
                      {-5, -5, 25, 15},
                      folder / "whole.las",
                      1,
                      "",
                      64};
  EXPECT_EQ(Cli::runChunk(whole).written, all.size());
  const std::vector<float> reference = heightsOf(whole.output);

  // A file chunk: a.las with a buffer of 2 from b.las.
  Cli::ChunkJob job{folder / "p.json",
                    {folder / "a.las", folder / "b.las"},
                    {-2, -2, 12, 12, {}},
                    0,
                    {0, 0, 10, 10},
                    folder / "out-a.las",
                    1,
                    folder / "out-a.png",
                    64};
  const Cli::ChunkResult result = Cli::runChunk(job);
  EXPECT_EQ(result.own, a.size());
  EXPECT_EQ(result.written, a.size());
  EXPECT_GT(result.read, a.size());
  EXPECT_LT(result.read, all.size());
  EXPECT_EQ(result.ground, 0u) << "no Classification: no ground point";
  EXPECT_TRUE(fs::exists(job.thumbnail) && fs::exists(folder / "out-a.pgw"));
  const auto out = Las::read(job.output).grid;
  const auto positions = Tressel::readField<Point>(*out->CartesianPositions());
  const auto heights =
      Tressel::readField<float>(*(*out)("StandardCartesianChart3D", "RelativeHeight"));
  ASSERT_EQ(positions.size(), a.size());
  EXPECT_FALSE((*out)("StandardCartesianChart3D", "CatalogBuffer"));
  for (std::size_t k = 0; k < a.size(); ++k) {
    EXPECT_EQ(positions[k].x, a[k].x) << "file order kept";
    EXPECT_EQ(heights[k], reference[k]) << k;
  }
  // Without the buffer, points near the edge see less: the check above can fail.
  Cli::ChunkJob alone = job;
  alone.files = {folder / "a.las"};
  alone.read = {0, 0, 10, 10, {}};
  alone.output = folder / "alone.las";
  Cli::runChunk(alone);
  const std::vector<float> cut = heightsOf(alone.output);
  std::size_t differ = 0;
  for (std::size_t k = 0; k < a.size(); ++k)
    differ += cut[k] != reference[k] ? 1 : 0;
  EXPECT_GT(differ, 0u);

  // A grid chunk [5, 15) x [0, 10): the points of both files in it, an edge point once.
  job.ownFile.reset();
  job.square = {5, 0, 15, 10};
  job.read = {3, -2, 17, 12, {}};
  job.output = folder / "out-grid.las";
  const auto own = static_cast<std::uint64_t>(
      std::count_if(all.begin(), all.end(), [](const Point& p) { return p.x >= 5 && p.x < 15; }));
  EXPECT_EQ(Cli::runChunk(job).written, own);

  // Nothing of its own: nothing written.
  job.square = {50, 50, 60, 60};
  job.read = {48, 48, 62, 62, {}};
  job.output = folder / "out-none.las";
  job.thumbnail = folder / "out-none.png";
  EXPECT_EQ(Cli::runChunk(job).written, 0u);
  EXPECT_FALSE(fs::exists(job.output) || fs::exists(job.thumbnail));
}

} // namespace
