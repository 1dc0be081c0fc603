// SPDX-License-Identifier: BSD-3-Clause
// Tests of thinned clouds written to files: LAS and bundle by extension, the report's counts read
// back from the file's own bytes, and failures reported without a file left behind; clouds that
// cannot be read whole and right (several grids in a bundle, NaN positions) refused by name.
#include "io/files.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

using namespace Quorvel;
using Vantor::PhysicalSpace::point;

using ReducedFiles = ScratchDirectory;

// Nine points in two fragments, four of them weighted 2 or more.
StrongPtr<Tressel::Grid> weightedCloud() {
  const std::vector<point> xyz{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0},
                               {5, 0, 0}, {6, 0, 0}, {7, 0, 0}, {8, 0, 0}};
  Tressel::PointCloudBuilder b(xyz);
  b.addField("Weights", std::vector<float>{0.5f, 3, -1, 2, 3, 0.1f, -0.5f, 1, 2.5f});
  return b.build({{0, 1, 2, 3, 4}, {5, 6, 7, 8}});
}

// The LAS 1.4 point count, read from the header's bytes (offset 247, 64-bit little endian).
std::uint64_t lasPointCount(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  in.seekg(247);
  unsigned char b[8] = {};
  in.read(reinterpret_cast<char*>(b), 8);
  std::uint64_t count = 0;
  for (int i = 7; i >= 0; --i)
    count = count << 8 | b[i];
  return count;
}

TEST_F(ReducedFiles, AreWrittenByExtensionAndReportTheirCounts) {
  PointCloudSizeReductionParameterBox box;
  box.keep_unweighted = false;
  box.threshold = 2;
  const auto grid = weightedCloud();
  EXPECT_EQ(Files::reduceSizeOfPointCloud(grid, box, file("thin.las")),
            "reduced 9 points to 4 (44.4%)");
  EXPECT_EQ(lasPointCount(file("thin.las")), 4u);
  EXPECT_EQ(Files::reduceSizeOfPointCloud(grid, box, file("thin.h5")),
            "reduced 9 points to 4 (44.4%)");
  const auto bundled = Files::load(file("thin.h5"));
  EXPECT_EQ(Tressel::readField<point>(*bundled->CartesianPositions()),
            (std::vector<point>{{1, 0, 0}, {3, 0, 0}, {4, 0, 0}, {8, 0, 0}}));
  EXPECT_TRUE(box.message.empty()) << box.message;
}

TEST_F(ReducedFiles, FailuresAreReportedAndWriteNothing) {
  PointCloudSizeReductionParameterBox bad;
  bad.keep = 2;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Files::reduceSizeOfPointCloud(weightedCloud(), bad, file("never.las")),
            "ERROR: keep must lie between 0 and 1");
  // An unwritable place: the reason names the file, in the result and in the box's messages.
  PointCloudSizeReductionParameterBox box;
  const std::string nowhere = file("missing/thin.las");
  const std::string result = Files::reduceSizeOfPointCloud(weightedCloud(), box, nowhere);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(result.rfind("ERROR: " + nowhere, 0), 0u) << result;
  EXPECT_NE(box.message.find(result.substr(7)), std::string::npos) << box.message;
  EXPECT_NE(printed.find("reduceSizeOfPointCloud: ERROR: keep must lie between 0 and 1\n"),
            std::string::npos)
      << printed;
  EXPECT_EQ(filesInDir(), 0u);
}

using LoadedFiles = ScratchDirectory;

// The message of the error that loading path throws, or "loaded".
std::string loadError(const std::string& path) {
  try {
    Files::load(path);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "loaded";
}

TEST_F(LoadedFiles, ABundleOfSeveralGridsIsReadOnlyByName) {
  Tressel::Bundle bundle;
  ASSERT_TRUE(
      bundle.bindToNew(file("two.h5"), std::make_shared<Tressel::StorageTransformations>()));
  bundle[0.0]->setGrid("ground", weightedCloud());
  Tressel::PointCloudBuilder trees({{0, 0, 5}, {1, 1, 7}});
  bundle[0.0]->setGrid("trees", trees.build({{0, 1}}));
  ASSERT_TRUE(bundle.save()) << bundle.lastError();
  const std::string holds = file("two.h5") + ": the bundle holds 2 grids (\"ground\" (time 0), "
                                             "\"trees\" (time 0))";
  EXPECT_EQ(loadError(file("two.h5")),
            holds + "; name the one to read (in Python: quorvel.read(path, grid=NAME))");
  EXPECT_EQ(
      Tressel::readField<point>(*Files::loadBundle(file("two.h5"), "trees")->CartesianPositions()),
      (std::vector<point>{{0, 0, 5}, {1, 1, 7}}));
  try {
    Files::loadBundle(file("two.h5"), "roofs");
    ADD_FAILURE() << "a grid that is not there was read";
  } catch (const std::exception& e) {
    EXPECT_EQ(std::string(e.what()), holds + ", none named \"roofs\"");
  }
}

TEST_F(LoadedFiles, NonFinitePositionsAreRefusedWithTheFirstPoint) {
  // Bundles hold any double: point 6 (in the second fragment) is NaN, point 7 infinite.
  const double nan = std::nan("");
  Tressel::PointCloudBuilder b({{0, 0, 0},
                                {1, 0, 0},
                                {2, 0, 0},
                                {3, 0, 0},
                                {4, 0, 0},
                                {5, 0, 0},
                                {6, nan, 0},
                                {7, 0, INFINITY}});
  Files::save(file("nan.h5"), b.build({{0, 1, 2, 3}, {4, 5, 6, 7}}));
  EXPECT_EQ(loadError(file("nan.h5")),
            file("nan.h5") + ": point 6 (counted from 0) has a NaN or infinite coordinate");
  // Text reads "nan" and "inf" as numbers.
  std::ofstream(file("nan.xyz")) << "1 2 3\n4 5 6\n7 inf 9\n";
  EXPECT_EQ(loadError(file("nan.xyz")),
            file("nan.xyz") + ": point 3 (counted from 1) has y = inf; positions must be finite");
  std::ofstream(file("fine.xyz")) << "1 2 3\n4 5 6\n";
  EXPECT_EQ(loadError(file("fine.xyz")), "loaded");
}

} // namespace
