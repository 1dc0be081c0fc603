// SPDX-License-Identifier: BSD-3-Clause
// Tests of the shared access layer, driven through a small algorithm written the way every
// library algorithm is: find inputs, make outputs, loop fragments, compute per point.
#include "quorvel/core/core.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <omp.h>
#include <random>
#include <sstream>
#include <stdexcept>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

// Height of every point above the lowest point of its fragment whose class lies in `classes`.
struct HeightBox {
  MultiRange<double> classes{"0:255"};
  int threads = -1;
  std::string message;

  void print() const {
    printField("classes: ", classes);
    printField("threads: ", threads);
  }
};

std::string heightAboveMinimum(const StrongPtr<Grid>& grid, HeightBox& box) {
  Messages log("HeightAboveMinimum: ", &box.message);
  if (!findChart(grid, log, "ERROR: no chart source StandardCartesianChart3D found"))
    return box.message;
  auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return box.message;
  auto classes = findField(grid, "Classification", log, "ERROR: no f_classification source found");
  if (!classes)
    return box.message;
  auto out = outputField<float>(grid, "HeightAboveMinimum");

  const auto fragments = fragmentsOf(*positions);
  FragmentProgress progress(fragments.size());
  forEachFragment(fragments.size(), correctedThreadCount(box.threads), log, [&](std::size_t k) {
    progress.step();
    auto xyz = fragmentArray<point>(*positions, fragments[k]);
    if (!xyz)
      return log.report("ERROR: no m_vertices");
    auto cls = fragmentArray<unsigned char>(*classes, fragments[k]);
    if (!cls)
      return log.report("ERROR: no cab_classification");
    double lowest = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < xyz->size(); ++i)
      if (box.classes.contains((*cls)[i], RangeTolerance))
        lowest = std::min(lowest, (*xyz)[i].z);
    FragmentOutput<float> result(out, fragments[k].id, xyz->size());
    for (std::size_t i = 0; i < xyz->size(); ++i)
      result[i] = static_cast<float>((*xyz)[i].z - lowest);
    result.commit();
  });
  return box.message;
}

struct Cloud {
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  Tressel::Partition partition;
  StrongPtr<Grid> grid;

  explicit Cloud(std::size_t n = 600, std::size_t fragmentSize = 100) {
    std::mt19937 random(7);
    std::uniform_real_distribution<double> coordinate(0.0, 50.0);
    for (std::size_t i = 0; i < n; ++i) {
      xyz.push_back({5e6 + coordinate(random), 3e5 + coordinate(random), coordinate(random)});
      cls.push_back(static_cast<unsigned char>(i % 7));
    }
    partition = Tressel::sequentialPartition(n, fragmentSize);
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("Classification", cls);
    grid = builder.build(partition);
  }

  // The expected result, computed on the plain arrays.
  std::vector<float> expected(const MultiRange<double>& classes) const {
    std::vector<float> out(xyz.size());
    for (const auto& fragment : partition) {
      double lowest = std::numeric_limits<double>::infinity();
      for (std::size_t i : fragment)
        if (classes.contains(cls[i], 1e-9))
          lowest = std::min(lowest, xyz[i].z);
      for (std::size_t i : fragment)
        out[i] = static_cast<float>(xyz[i].z - lowest);
    }
    return out;
  }
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    lines.push_back(line);
  return lines;
}

TEST(Access, FragmentLoopCreatesOutputWithThePositionsLayout) {
  Cloud cloud;
  HeightBox box;
  box.classes = MultiRange<double>("2:4");
  box.threads = 1;
  CaptureStdout();
  EXPECT_EQ(heightAboveMinimum(cloud.grid, box), "");
  EXPECT_EQ(GetCapturedStdout(), "... computing fragment 1 / 6            \r"
                                 "... computing fragment 2 / 6            \r"
                                 "... computing fragment 3 / 6            \r"
                                 "... computing fragment 4 / 6            \r"
                                 "... computing fragment 5 / 6            \r"
                                 "... computing fragment 6 / 6            \r");

  auto out = (*cloud.grid)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum");
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->getElementType()->name(), "float32");
  EXPECT_EQ(out->getFragmentIDCollection(),
            cloud.grid->CartesianPositions()->getFragmentIDCollection());
  EXPECT_EQ(Tressel::readField<float>(*out, cloud.partition), cloud.expected(box.classes));
}

TEST(Access, ResultsDoNotDependOnTheThreadCount) {
  Cloud cloud(2000, 37);
  HeightBox one;
  one.threads = 1;
  HeightBox many;
  many.threads = 3;
  omp_set_num_threads(4);
  CaptureStdout();
  heightAboveMinimum(cloud.grid, one);
  auto single = Tressel::readField<float>(
      *(*cloud.grid)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum"));
  heightAboveMinimum(cloud.grid, many);
  GetCapturedStdout();
  auto parallel = Tressel::readField<float>(
      *(*cloud.grid)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum"));
  EXPECT_EQ(single, parallel);
  EXPECT_EQ(parallel, cloud.expected(one.classes));
}

TEST(Access, ExistingOutputIsReusedAndItsArraysReplaced) {
  Cloud cloud(300, 100);
  auto positions = cloud.grid->CartesianPositions();
  const auto ids = positions->getFragmentIDs().fragments();
  auto out = outputField<float>(cloud.grid, "HeightAboveMinimum");
  // Fragment 0 holds an array of the right size, fragment 1 one of a wrong size.
  auto right = std::make_shared<MemArray<1, float>>(Tressel::MultiIndex<1>(100));
  std::fill(right->data(), right->data() + 100, -7.f);
  auto rightCreator = out->setPersistentData(right, ids[0]);
  auto wrong = std::make_shared<MemArray<1, float>>(Tressel::MultiIndex<1>(3));
  out->setPersistentData(wrong, ids[1]);
  const auto ageBefore = rightCreator->age();

  HeightBox box;
  CaptureStdout();
  heightAboveMinimum(cloud.grid, box);
  GetCapturedStdout();

  EXPECT_EQ((*cloud.grid)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum"), out);
  EXPECT_EQ(out->getData(ids[0]), right);               // written in place ...
  EXPECT_GT(out->getCreator(ids[0])->age(), ageBefore); // ... and touched
  EXPECT_NE(out->getData(ids[1]), wrong);               // replaced by a new array
  EXPECT_EQ(Tressel::readField<float>(*out, cloud.partition), cloud.expected(box.classes));

  // An output of another element type is not overwritten.
  auto other = outputField<double>(cloud.grid, "HeightAboveMinimum");
  EXPECT_EQ(other, nullptr);
}

TEST(Access, MissingWholeGridInputsEndTheRunWithTheirMessage) {
  HeightBox box;
  auto bare = std::make_shared<Grid>();
  CaptureStdout();
  EXPECT_EQ(heightAboveMinimum(bare, box), "ERROR: no chart source StandardCartesianChart3D found");
  EXPECT_EQ(GetCapturedStdout(),
            "HeightAboveMinimum: ERROR: no chart source StandardCartesianChart3D found\n");
  EXPECT_EQ(bare->getCartesianRepresentation(Tressel::StandardCartesianChart3D), nullptr);

  auto noPositions = std::make_shared<Grid>();
  noPositions->makeCartesianRepresentation(3, Tressel::StandardCartesianChart3D);
  HeightBox second;
  CaptureStdout();
  EXPECT_EQ(heightAboveMinimum(noPositions, second), "ERROR: no f_vertices");
  EXPECT_EQ(GetCapturedStdout(), "HeightAboveMinimum: ERROR: no f_vertices\n");

  Tressel::PointCloudBuilder builder({{0, 0, 0}});
  auto noClasses = builder.build({{0}});
  HeightBox third;
  CaptureStdout();
  EXPECT_EQ(heightAboveMinimum(noClasses, third), "ERROR: no f_classification source found");
  GetCapturedStdout();
  EXPECT_EQ((*noClasses)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum"), nullptr);

  HeightBox fourth;
  CaptureStdout();
  EXPECT_EQ(heightAboveMinimum(nullptr, fourth),
            "ERROR: no chart source StandardCartesianChart3D found");
  GetCapturedStdout();
}

TEST(Access, MissingFragmentArraysSkipOnlyTheirFragment) {
  Cloud cloud(400, 100);
  auto positions = cloud.grid->CartesianPositions();
  auto classes = (*cloud.grid)(Tressel::StandardCartesianChart3D, "Classification");
  const auto ids = positions->getFragmentIDs().fragments();
  classes->setCreator(ids[1], classes->createCreator(nullptr, "empty")); // creator without data
  positions->setCreator(ids[3], positions->createCreator(nullptr, "empty"));

  HeightBox box;
  box.threads = 2;
  CaptureStdout();
  const std::string message = heightAboveMinimum(cloud.grid, box);
  auto lines = linesOf(GetCapturedStdout());
  std::vector<std::string> errors;
  for (auto& line : lines) {
    line = line.substr(line.rfind('\r') + 1); // drop the overwritten progress lines
    if (!line.empty())
      errors.push_back(line);
  }
  std::sort(errors.begin(), errors.end());
  EXPECT_EQ(errors, (std::vector<std::string>{"HeightAboveMinimum: ERROR: no cab_classification",
                                              "HeightAboveMinimum: ERROR: no m_vertices"}));
  EXPECT_TRUE(message == "ERROR: no cab_classificationERROR: no m_vertices" ||
              message == "ERROR: no m_verticesERROR: no cab_classification")
      << message;

  auto out = (*cloud.grid)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum");
  const auto expected = cloud.expected(box.classes);
  for (std::size_t k : {0u, 2u}) {
    auto values = fragmentArray<float>(*out, *ids[k]);
    ASSERT_NE(values, nullptr) << k;
    for (std::size_t i = 0; i < 100; ++i)
      EXPECT_EQ((*values)[i], expected[100 * k + i]);
  }
  EXPECT_EQ(out->getCreator(ids[1]), nullptr);
  EXPECT_EQ(out->getCreator(ids[3]), nullptr);
}

TEST(Access, ZeroFragmentsGiveAnEmptyOutputFieldAndNoError) {
  Tressel::PointCloudBuilder builder({});
  builder.addField("Classification", std::vector<unsigned char>{});
  auto grid = builder.build({});
  HeightBox box;
  CaptureStdout();
  EXPECT_EQ(heightAboveMinimum(grid, box), "");
  EXPECT_EQ(GetCapturedStdout(), "");
  auto out = (*grid)(Tressel::StandardCartesianChart3D, "HeightAboveMinimum");
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(out->nFragments(), 0u);
}

TEST(Access, FragmentBoxesComeFromStorageOrFromThePoints) {
  Cloud cloud(200, 100);
  auto positions = cloud.grid->CartesianPositions();
  auto slots = fragmentsOf(*positions);
  ASSERT_EQ(slots.size(), 2u);
  auto stored = fragmentBBox(slots[0]);
  ASSERT_NE(stored, nullptr);

  slots[0].creator->touch(); // the stored box is stale now and is recomputed from the points
  auto computed = fragmentBBox(slots[0]);
  ASSERT_NE(computed, nullptr);
  EXPECT_EQ(*computed, *stored);
  EXPECT_EQ(fragmentBBox(FragmentSlot{slots[0].id, nullptr}), nullptr);
}

TEST(Access, ExceptionsInTheLoopBodyAreReportedAndTheLoopGoesOn) {
  std::string collected;
  Messages log("Loop: ", &collected);
  std::vector<int> done(4, 0);
  CaptureStdout();
  forEachFragment(4, 2, log, [&](std::size_t k) {
    if (k == 2)
      throw std::runtime_error("fragment broke");
    done[k] = 1;
  });
  EXPECT_EQ(GetCapturedStdout(), "Loop: ERROR: fragment broke\n");
  EXPECT_EQ(collected, "ERROR: fragment broke");
  EXPECT_EQ(done, (std::vector<int>{1, 1, 0, 1}));
}

TEST(Threads, MaximumMinusOneNeverBelowOne) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(4);
  EXPECT_EQ(maximumThreadsMinusOne(), 3);
  EXPECT_EQ(correctedThreadCount(0), 3);
  EXPECT_EQ(correctedThreadCount(-1), 3);
  EXPECT_EQ(correctedThreadCount(5), 3);
  EXPECT_EQ(correctedThreadCount(4), 4);
  EXPECT_EQ(correctedThreadCount(2), 2);
  omp_set_num_threads(1);
  EXPECT_EQ(maximumThreadsMinusOne(), 1);
  EXPECT_EQ(correctedThreadCount(0), 1);
  omp_set_num_threads(saved);
}

TEST(Reporting, MessagesAndBoxLines) {
  std::string collected = "before;";
  Messages log("ShapeFactorComputation: ", &collected);
  HeightBox box;
  box.classes = MultiRange<double>("1:2,5");
  CaptureStdout();
  log.report("ERROR: no f_vertices");
  log.note("INFO: only printed");
  box.print();
  printField("verbose: ", true);
  printField("step: ", 0.5);
  printField("chartname: ", std::string("StandardCartesianChart3D"));
  EXPECT_EQ(GetCapturedStdout(), "ShapeFactorComputation: ERROR: no f_vertices\n"
                                 "ShapeFactorComputation: INFO: only printed\n"
                                 "classes: 1.000000:2.000000,5.000000:5.000000\n"
                                 "threads: -1\n"
                                 "verbose: 1\n"
                                 "step: 0.5\n"
                                 "chartname: StandardCartesianChart3D\n");
  EXPECT_EQ(collected, "before;ERROR: no f_vertices");

  FragmentProgress progress(2, "shapeFactorComputation: compute ", "       \r");
  CaptureStdout();
  EXPECT_EQ(progress.step(), 1u);
  EXPECT_EQ(GetCapturedStdout(), "shapeFactorComputation: compute 1 / 2       \r");
}

} // namespace
