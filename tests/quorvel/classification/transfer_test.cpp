// SPDX-License-Identifier: BSD-3-Clause
// Tests of the classification transfer against a brute-force oracle, its parameter box and its
// diagnostics.
#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"
#include "support/brute_force.hpp"
#include "tressel/point_cloud.hpp"
#include "vantor/trees.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <omp.h>
#include <random>
#include <sstream>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Box = ClassificationTransferParameterBox;

// ---- The parameter box ---------------------------------------------------------------------

std::string printed(const Box& box) {
  CaptureStdout();
  box.print();
  return GetCapturedStdout();
}

TEST(TransferBox, TextsGiveBandsAndRadius) {
  const Box empty("");
  EXPECT_EQ(empty.radius, 0.001);
  EXPECT_EQ(empty.assignment, (std::map<double, std::int32_t>{{1e-06, -1}}));
  EXPECT_FALSE(empty.hasAssignment);

  const Box bare("0.5");
  EXPECT_EQ(bare.radius, 0.5);
  EXPECT_EQ(bare.assignment, (std::map<double, std::int32_t>{{0.25, -1}}));
  EXPECT_FALSE(bare.hasAssignment);

  const Box bands("1=2;3=5");
  EXPECT_EQ(bands.assignment, (std::map<double, std::int32_t>{{1, 2}, {9, 5}}));
  EXPECT_EQ(bands.radius, 3.0);
  EXPECT_TRUE(bands.hasAssignment);

  const Box cleared("1=2,4,6=7"); // the bare 4 discards the pair before it and ends the reading
  EXPECT_EQ(cleared.assignment, (std::map<double, std::int32_t>{{16, -1}}));
  EXPECT_EQ(cleared.radius, 4.0);
  EXPECT_TRUE(cleared.hasAssignment);

  EXPECT_EQ(Box("2=4;2=9").assignment, (std::map<double, std::int32_t>{{4, 4}}));
  EXPECT_EQ(Box("1=2=3;0.5").assignment, (std::map<double, std::int32_t>{{0.25, -1}}));
  EXPECT_EQ(Box(";;0.5;").radius, 0.5); // empty tokens are dropped
  const Box nothing("a=b=c");
  EXPECT_TRUE(nothing.assignment.empty());
  EXPECT_EQ(nothing.radius, 0.0001);
}

TEST(TransferBox, PrintsEveryFieldWithItsLabel) {
  EXPECT_EQ(printed(Box("")), "radius: 0.001\n"
                              "\nassignment:\n"
                              "\t0.001 --> -1\n"
                              "has assignment: 0\n"
                              "maxradius: 250\n"
                              "dimension: 3\n"
                              "fieldname: Classification\n"
                              "onetree: 0\n"
                              "positions: 0\n"
                              "expand: 0\n"
                              "unclassify: 0\n"
                              "source: 0.000000:255.000000\n"
                              "target: 0.000000:255.000000\n"
                              "sourcefilename: \n"
                              "threads: -1\n");
  Box box("3=1;1=2,");
  box.source = MultiRange<double>("2:3");
  box.expand = true;
  box.sourcefilename = "scan_1.las";
  box.threads = 4;
  const std::string text = printed(box);
  EXPECT_NE(text.find("radius: 3\n\nassignment:\n\t1 --> 2\n\t3 --> 1\nhas assignment: 1\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("expand: 1\nunclassify: 0\nsource: 2.000000:3.000000\n"), std::string::npos);
  EXPECT_NE(text.find("sourcefilename: scan_1.las\nthreads: 4\n"), std::string::npos);
}

// ---- The transfer against an oracle ---------------------------------------------------------

struct Cloud {
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  Tressel::Partition partition;
  StrongPtr<Grid> grid;

  Cloud(unsigned seed, std::size_t n, double tile, double shiftX = 0.0) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> xy(0.0, 30.0), z(0.0, 3.0);
    for (std::size_t i = 0; i < n; ++i) {
      xyz.push_back({4e5 + shiftX + xy(random), 5e6 + xy(random), z(random)});
      cls.push_back(static_cast<unsigned char>(random() % 6));
    }
    // Some exact duplicates with other classes: ties go to the smallest index.
    for (std::size_t i = 0; i + 1 < n; i += 97) {
      xyz[i + 1] = xyz[i];
      cls[i + 1] = static_cast<unsigned char>((cls[i] + 1) % 6);
    }
    partition = Tressel::tilePartition(xyz, tile);
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("Classification", cls);
    grid = builder.build(partition);
  }

  std::vector<unsigned char> classes() const {
    return Tressel::readField<unsigned char>(
        *(*grid)(Tressel::StandardCartesianChart3D, "Classification"), partition);
  }
};

// The transfer as it is defined, on plain arrays: source fragment after source fragment, every
// target point whose current class passes the target range takes the class of the nearest
// source point of that fragment within the radius (smallest index among equally near ones).
std::vector<unsigned char> oracle(const Cloud& source, const Cloud& target, const Box& box) {
  std::vector<unsigned char> out = target.cls;
  const bool shift = box.offset.x > 0 || box.offset.y > 0;
  if (box.unclassify)
    std::fill(out.begin(), out.end(), 0);
  const int dims = box.dimension == 3 ? 3 : 2;
  for (const auto& fragment : source.partition) {
    std::vector<std::size_t> from; // the fragment's points of a source class
    for (std::size_t s : fragment)
      if (box.source.contains(source.cls[s], 1e-9))
        from.push_back(s);
    for (std::size_t t = 0; t < out.size(); ++t) {
      if (!box.target.contains(out[t], 1e-9))
        continue;
      const point q = shift ? target.xyz[t] - box.offset : target.xyz[t];
      const auto found = BruteForce::nearest(source.xyz, q, box.radius * box.radius, dims, from);
      if (!found)
        continue;
      if (!box.hasAssignment) {
        out[t] = source.cls[found->second];
      } else {
        const auto band = box.assignment.upper_bound(found->first);
        if (band != box.assignment.end())
          out[t] = static_cast<unsigned char>(band->second);
      }
    }
  }
  return out;
}

struct Variant {
  const char* name;
  const char* text;
  int dimension;
  const char* sourceRange;
  const char* targetRange;
  bool unclassify;
  Vantor::PhysicalSpace::vector offset;
  double tile; // fragment size of both clouds
};

TEST(ClassificationTransfer, MatchesTheOracle) {
  const Variant variants[] = {
      {"3-D, several fragments", "1.5", 3, "0:255", "0:255", false, {0, 0, 0}, 10.0},
      {"2-D, one fragment", "1.5", 2, "0:255", "0:255", false, {0, 0, 0}, 100.0},
      {"ranges", "2", 3, "2:3", "0:1;5", false, {0, 0, 0}, 10.0},
      {"bands", "0.5=7;1.5=8", 3, "0:255", "0:255", false, {0, 0, 0}, 10.0},
      {"unclassify", "1", 2, "1:4", "0:3", true, {0, 0, 0}, 7.0},
      {"unclassify, target range without 0", "1", 2, "0:255", "1:5", true, {0, 0, 0}, 7.0},
      {"positive offset", "1.5", 3, "0:255", "0:255", false, {20, 0, 0}, 10.0},
      {"non-positive offset is ignored", "1.5", 3, "0:255", "0:255", false, {-20, 0, 5}, 10.0},
  };
  for (const auto& v : variants) {
    const double shiftX = v.offset.x > 0 ? v.offset.x : 0.0;
    const Cloud source(1, 1500, v.tile);
    const Cloud target(2, 1500, v.tile, shiftX);
    Box box(v.text);
    box.dimension = v.dimension;
    box.source = MultiRange<double>(v.sourceRange);
    box.target = MultiRange<double>(v.targetRange);
    box.unclassify = v.unclassify;
    box.offset = v.offset;
    box.threads = 2;
    CaptureStdout();
    const std::string message = classificationTransfer(source.grid, target.grid, box);
    GetCapturedStdout();
    EXPECT_EQ(message, "") << v.name;
    const auto expected = oracle(source, target, box);
    EXPECT_EQ(target.classes(), expected) << v.name;
    EXPECT_NE(expected, target.cls) << v.name << ": the variant changes nothing";
  }
}

TEST(ClassificationTransfer, ResultsAndRangeAttributeDoNotDependOnThreads) {
  const Cloud source(3, 2000, 8.0);
  const Cloud one(4, 2000, 8.0), many(4, 2000, 8.0);
  Box a("1.2"), b("1.2");
  a.threads = 1;
  b.threads = 3;
  CaptureStdout();
  classificationTransfer(source.grid, one.grid, a);
  classificationTransfer(source.grid, many.grid, b);
  GetCapturedStdout();
  EXPECT_EQ(one.classes(), many.classes());
  auto range = Basalt::chunkCast<unsigned char>(
      (*one.grid)(Tressel::StandardCartesianChart3D, "Classification")->getAttribute("Range"));
  ASSERT_NE(range, nullptr);
  const auto classes = one.classes();
  EXPECT_EQ((*range)[0], *std::min_element(classes.begin(), classes.end()));
  EXPECT_EQ((*range)[1], *std::max_element(classes.begin(), classes.end()));
}

TEST(ClassificationTransfer, OneFragmentGivesTheSameClassesOnAnyThreads) {
  // One source and one target fragment: the threads go to the target's points. The runtime's
  // count is raised so that 3 is not corrected down on a small machine.
  const Cloud source(7, 6000, 100.0);
  const int saved = omp_get_max_threads();
  omp_set_num_threads(4);
  for (int dimension : {2, 3}) {
    const Cloud one(8, 6000, 100.0), many(8, 6000, 100.0);
    Box a("0.8"), b("0.8");
    a.dimension = b.dimension = dimension;
    a.threads = 1;
    b.threads = 3;
    CaptureStdout();
    classificationTransfer(source.grid, one.grid, a);
    classificationTransfer(source.grid, many.grid, b);
    GetCapturedStdout();
    EXPECT_EQ(one.classes(), many.classes()) << dimension;
    EXPECT_EQ(many.classes(), oracle(source, many, b)) << dimension;
  }
  omp_set_num_threads(saved);
}

TEST(ClassificationTransfer, ThreadsAreCorrected) {
  const Cloud source(5, 50, 100.0), target(6, 50, 100.0);
  const int saved = omp_get_max_threads();
  omp_set_num_threads(3);
  for (int requested : {0, -4, 1000}) {
    Box box("1");
    box.threads = requested;
    CaptureStdout();
    classificationTransfer(source.grid, target.grid, box);
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(box.threads, 2) << requested;
    EXPECT_NE(out.find("threads: 2\n"), std::string::npos); // printed after the correction
  }
  omp_set_num_threads(saved);
}

TEST(ClassificationTransfer, CreatesAMissingTargetClassField) {
  const Cloud source(7, 400, 10.0);
  const Cloud target(8, 400, 10.0);
  Tressel::PointCloudBuilder bare(target.xyz);
  auto grid = bare.build(target.partition);
  Box box("1");
  CaptureStdout();
  EXPECT_EQ(classificationTransfer(source.grid, grid, box), "");
  const std::string out = GetCapturedStdout();
  EXPECT_NE(out.find("bboxes: " + std::to_string(target.partition.size()) + " vs. " +
                     std::to_string(target.partition.size()) + "\n"),
            std::string::npos);
  auto field = (*grid)(Tressel::StandardCartesianChart3D, "Classification");
  ASSERT_NE(field, nullptr);
  Cloud zeroed = target;
  std::fill(zeroed.cls.begin(), zeroed.cls.end(), 0);
  EXPECT_EQ(Tressel::readField<unsigned char>(*field, target.partition),
            oracle(source, zeroed, box));
}

std::string lastLines(const std::string& out) {
  // Progress lines end in a carriage return and are overwritten: keep what stays visible.
  std::string kept;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    line = line.substr(line.rfind('\r') == std::string::npos ? 0 : line.rfind('\r') + 1);
    if (line.rfind("ClassificationTransfer: ", 0) == 0)
      kept += line + "\n";
  }
  return kept;
}

TEST(ClassificationTransfer, WholeGridErrorsEndTheCall) {
  const Cloud cloud(9, 30, 100.0);
  auto noClasses = Tressel::PointCloudBuilder(cloud.xyz).build(cloud.partition);
  auto empty = std::make_shared<Grid>();
  struct Case {
    StrongPtr<Grid> source, target;
    int dimension;
    std::string text;
  } cases[] = {
      {empty, cloud.grid, 3, "ERROR: no f_vertices source found"},
      {noClasses, cloud.grid, 3, "ERROR: no f_classification source found"},
      {cloud.grid, nullptr, 3, "ERROR: no f_vertices target found"},
      {cloud.grid, cloud.grid, 4, "ERROR: no tree"},
  };
  for (const auto& c : cases) {
    Box box("1");
    box.dimension = c.dimension;
    CaptureStdout();
    EXPECT_EQ(classificationTransfer(c.source, c.target, box), c.text);
    EXPECT_EQ(lastLines(GetCapturedStdout()), "ClassificationTransfer: " + c.text + "\n");
  }
}

// Replaces the grid's class field by one in which fragment 0 has no array and fragment 1 an
// array creator without data; the other fragments keep theirs. Returns the new field.
StrongPtr<Field> breakFirstTwoClassArrays(const StrongPtr<Grid>& grid) {
  auto classes = (*grid)(Tressel::StandardCartesianChart3D, "Classification");
  const auto ids = classes->getFragmentIDs().fragments();
  auto broken = std::make_shared<Field>(classes->getFragmentIDCollection());
  for (std::size_t k = 1; k < ids.size(); ++k)
    broken->setCreator(ids[k], k == 1 ? classes->createCreator(nullptr, "empty")
                                      : classes->getCreator(ids[k]));
  (*grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D))["Classification"] = broken;
  return broken;
}

TEST(ClassificationTransfer, FragmentErrorsSkipOrStopAsDefined) {
  const Cloud source(10, 600, 10.0);
  Cloud target(11, 600, 10.0);
  // Target fragment 0 loses its class array, fragment 1 keeps a creator without data.
  auto swapped = breakFirstTwoClassArrays(target.grid);
  const auto ids = swapped->getFragmentIDs().fragments();
  Box box("1.5");
  box.threads = 1;
  CaptureStdout();
  const std::string message = classificationTransfer(source.grid, target.grid, box);
  const std::string lines = lastLines(GetCapturedStdout());
  EXPECT_NE(lines.find("ClassificationTransfer: ERROR: no cab_target\n"), std::string::npos);
  EXPECT_NE(lines.find("ClassificationTransfer: ERROR: no m_classification target found\n"),
            std::string::npos);
  EXPECT_NE(lines.find("ClassificationTransfer: ERROR: no cab_classification\n"),
            std::string::npos);
  EXPECT_NE(message.find("ERROR: no cab_target"), std::string::npos);
  // The other fragments are computed.
  const auto expected = oracle(source, target, box);
  const auto& third = target.partition[2];
  auto array = fragmentArray<unsigned char>(*swapped, *ids[2]);
  ASSERT_NE(array, nullptr);
  for (std::size_t j = 0; j < third.size(); ++j)
    EXPECT_EQ((*array)[j], expected[third[j]]);

  // A source fragment without classes stops the source pass with its message.
  Cloud brokenSource(12, 600, 10.0);
  auto sourceClasses = (*brokenSource.grid)(Tressel::StandardCartesianChart3D, "Classification");
  sourceClasses->setCreator(sourceClasses->getFragmentIDs().findFragmentID(0u),
                            sourceClasses->createCreator(nullptr, "empty"));
  Box second("1");
  CaptureStdout();
  EXPECT_EQ(classificationTransfer(brokenSource.grid, Cloud(13, 100, 100.0).grid, second),
            "ERROR: no m_classification source found");
  GetCapturedStdout();
}

// Everything the transfer writes, in order: the box, the fragment count line and one progress
// line per source fragment, each overwritten by the next.
TEST(ClassificationTransfer, WritesTheBoxAndOneProgressLinePerSourceFragment) {
  const Cloud source(17, 300, 10.0), target(18, 300, 15.0);
  Box box("1.5");
  box.threads = 1;
  const std::string boxLines = printed(box);
  CaptureStdout();
  EXPECT_EQ(classificationTransfer(source.grid, target.grid, box), "");
  std::string expected = boxLines + "bboxes: " + std::to_string(target.partition.size()) + " vs. " +
                         std::to_string(target.partition.size()) + "\n";
  for (std::size_t k = 1; k <= source.partition.size(); ++k)
    expected += "source: " + std::to_string(k) + " / " + std::to_string(source.partition.size()) +
                "      \r";
  EXPECT_EQ(GetCapturedStdout(), expected);
}

// ---- The earlier version --------------------------------------------------------------------

TEST(ClassificationTransferOLD, PerFragmentModeCarriesClassesAndPositions) {
  const Cloud source(14, 800, 10.0);
  Cloud target(15, 800, 10.0);
  Box box("1.5");
  box.positions = true;
  CaptureStdout();
  EXPECT_EQ(classificationTransferOLD(source.grid, target.grid, box), "");
  const std::string out = GetCapturedStdout();
  const std::string timing = "\nClassificationTransfer: time needed: ";
  const auto at = out.rfind(timing);
  ASSERT_NE(at, std::string::npos) << out;
  char* end = nullptr;
  const double seconds = std::strtod(out.c_str() + at + timing.size(), &end);
  EXPECT_GE(seconds, 0.0);
  EXPECT_EQ(std::string(end), "\n");

  // Oracle: per source fragment, nearest within the radius, class and position carried.
  std::vector<point> xyz = target.xyz;
  std::vector<unsigned char> cls = target.cls;
  for (const auto& fragment : source.partition)
    for (std::size_t t = 0; t < xyz.size(); ++t)
      if (const auto found =
              BruteForce::nearest(source.xyz, xyz[t], box.radius * box.radius, 3, fragment)) {
        cls[t] = source.cls[found->second];
        xyz[t] = source.xyz[found->second];
      }
  EXPECT_EQ(target.classes(), cls);
  EXPECT_EQ(Tressel::readField<point>(*target.grid->CartesianPositions(), target.partition), xyz);
}

// The earlier version's output up to its running time: in one-tree mode one line per source
// fragment while the tree fills, then one line per target fragment; each overwritten by the next.
TEST(ClassificationTransferOLD, WritesOneProgressLinePerFragmentAndTheTime) {
  const Cloud source(19, 300, 10.0), target(20, 300, 15.0);
  const int saved = omp_get_max_threads();
  omp_set_num_threads(2); // one worker: the lines come in fragment order
  std::string computing;
  for (std::size_t k = 1; k <= target.partition.size(); ++k)
    computing += "... computing fragment " + std::to_string(k) + " / " +
                 std::to_string(target.partition.size()) + "            \r";
  std::string filling;
  for (std::size_t k = 1; k <= source.partition.size(); ++k)
    filling += "filling tree in mode onetree: " + std::to_string(k) + " / " +
               std::to_string(source.partition.size()) + "\r";
  const std::string timing = "\nClassificationTransfer: time needed: ";
  for (bool onetree : {false, true}) {
    Box box("1.5");
    box.onetree = onetree;
    CaptureStdout();
    EXPECT_EQ(classificationTransferOLD(source.grid, target.grid, box), "");
    const std::string out = GetCapturedStdout();
    const auto at = out.rfind(timing);
    ASSERT_NE(at, std::string::npos) << out;
    EXPECT_EQ(out.substr(0, at), (onetree ? filling : "") + computing) << onetree;
  }
  omp_set_num_threads(saved);
}

// Per-fragment mode: a source fragment without a class array is passed over with a note naming
// the target fragment, one with an unreadable array is reported; a target fragment whose class
// array cannot be read is reported and left; the other fragments are computed.
TEST(ClassificationTransferOLD, PerFragmentProblemsAreReportedAndPassedOver) {
  Cloud source(22, 400, 10.0);
  Cloud target(23, 400, 100.0);
  // Source fragment 0 has no class array, fragment 1 a creator without data.
  ASSERT_GE(source.partition.size(), 3u);
  breakFirstTwoClassArrays(source.grid);
  const std::string targetName = (*target.grid)(Tressel::StandardCartesianChart3D, "Classification")
                                     ->getFragmentIDs()
                                     .fragments()[0]
                                     ->Name();
  const int saved = omp_get_max_threads();
  omp_set_num_threads(2);
  Box box("1.5");
  CaptureStdout();
  EXPECT_EQ(classificationTransferOLD(source.grid, target.grid, box),
            "ERROR: no m_sourceclassification");
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out.substr(0, out.find("\nClassificationTransfer: time")),
            "... computing fragment 1 / 1            \r"
            "INFO: no cab_source_classification for target fragment: " +
                targetName +
                "\n"
                "ClassificationTransfer: ERROR: no m_sourceclassification\n");
  // The remaining source fragments against brute force.
  std::vector<unsigned char> expected = target.cls;
  for (std::size_t f = 2; f < source.partition.size(); ++f)
    for (std::size_t t = 0; t < expected.size(); ++t) {
      double best = box.radius * box.radius;
      std::size_t nearest = source.xyz.size();
      for (std::size_t s : source.partition[f]) {
        const double d2 = Vantor::PhysicalSpace::squaredDistance(source.xyz[s], target.xyz[t]);
        if (d2 < best || (d2 == best && s < nearest))
          best = d2, nearest = s;
      }
      if (nearest != source.xyz.size())
        expected[t] = source.cls[nearest];
    }
  EXPECT_EQ(target.classes(), expected);

  // A target fragment whose class array cannot be read.
  Cloud unreadable(24, 50, 100.0);
  auto targetClasses = (*unreadable.grid)(Tressel::StandardCartesianChart3D, "Classification");
  const auto id = targetClasses->getFragmentIDs().fragments()[0];
  targetClasses->setCreator(id, targetClasses->createCreator(nullptr, "empty"));
  Box second("1.5");
  CaptureStdout();
  EXPECT_EQ(classificationTransferOLD(Cloud(25, 50, 100.0).grid, unreadable.grid, second),
            "ERROR: no m_targetclassification");
  GetCapturedStdout();
  omp_set_num_threads(saved);
}

TEST(ClassificationTransferOLD, OneTreeModeWithExpandAndHeights) {
  // Source points on a line, one target point 5 units away from the nearest of them.
  const std::vector<point> sourceXYZ = {{0, 0, 1}, {1, 0, 2}, {2, 0, 3}};
  Tressel::PointCloudBuilder sourceBuilder(sourceXYZ);
  sourceBuilder.addField("Classification", std::vector<unsigned char>{4, 5, 6});
  auto source = sourceBuilder.build(Tressel::sequentialPartition(3, 2));
  auto run = [&](double maxradius, bool positions) {
    Tressel::PointCloudBuilder targetBuilder({{7, 0, 9}});
    targetBuilder.addField("Classification", std::vector<unsigned char>{1});
    auto target = targetBuilder.build({{0}});
    Box box("1");
    box.onetree = true;
    box.expand = true;
    box.maxradius = maxradius;
    box.positions = positions;
    CaptureStdout();
    EXPECT_EQ(classificationTransferOLD(source, target, box), "");
    const std::string out = GetCapturedStdout();
    EXPECT_NE(
        out.find("filling tree in mode onetree: 1 / 2\rfilling tree in mode onetree: 2 / 2\r"),
        std::string::npos);
    EXPECT_EQ(box.sourceClasses, (std::vector<std::int32_t>{4, 5, 6}));
    auto cls = Tressel::readField<unsigned char>(
        *(*target)(Tressel::StandardCartesianChart3D, "Classification"));
    auto z = Tressel::readField<point>(*target->CartesianPositions())[0].z;
    return std::make_pair(static_cast<int>(cls[0]), z);
  };
  using Result = std::pair<int, double>;
  EXPECT_EQ(run(3.0, false), Result(1, 9));  // tries 2 and 4: nothing within
  EXPECT_EQ(run(5.0, false), Result(6, 9));  // tries 2, 4 and 8: found
  EXPECT_EQ(run(100.0, true), Result(6, 3)); // the source z is carried
}

TEST(ClassificationTransferOLD, OneTreeStepsAndSetUpErrors) {
  Box box("0.5=3;2=9");
  box.offset = {-10, 0, 0}; // subtracted always in one-tree mode without expand
  box.sourceClasses = {7};
  auto tree = std::make_shared<Vantor::OcTree<unsigned>>(
      std::make_shared<Vantor::BoundingBox>(point{0, 0, 0}, point{20, 20, 20}), 64);
  tree->insert(point{11, 0, 0}, 0);
  point p{0, 0, 0};
  unsigned char c = 1;
  classificationTransferOneTree(tree, box, p, c); // query at (10, 0, 0): distance 1, band 2 -> 9
  EXPECT_EQ(c, 9);
  box.hasAssignment = false;
  classificationTransferOneTree(tree, box, p, c);
  EXPECT_EQ(c, 7);

  const Cloud cloud(16, 20, 100.0);
  auto noClasses = Tressel::PointCloudBuilder(cloud.xyz).build(cloud.partition);
  struct Case {
    StrongPtr<Grid> source, target;
    bool onetree;
    const char* range;
    std::string text;
  } cases[] = {
      {nullptr, cloud.grid, false, "0:255", "ERROR: no sourcegrid found"},
      {std::make_shared<Grid>(), cloud.grid, false, "0:255", "ERROR: no source vertices"},
      {noClasses, cloud.grid, false, "0:255", "ERROR: no source classification"},
      {cloud.grid, std::make_shared<Grid>(), false, "0:255", "ERROR: no target f_vertices"},
      {cloud.grid, cloud.grid, true, "200", "ERROR: empty tree"},
  };
  for (const auto& c : cases) {
    Box failing("1");
    failing.onetree = c.onetree;
    failing.source = MultiRange<double>(c.range);
    CaptureStdout();
    EXPECT_EQ(classificationTransferOLD(c.source, c.target, failing), c.text);
    EXPECT_NE(GetCapturedStdout().find("ClassificationTransfer: " + c.text + "\n"),
              std::string::npos);
  }
}

// The tree-typed step split over several threads: every target point against brute force, in
// 2-D and 3-D, with the source position carried.
TEST(ClassificationTransferOLD, TreeTypedStepOverThreadsMatchesBruteForce) {
  std::mt19937 random(21);
  std::uniform_real_distribution<double> u(0.0, 30.0);
  std::vector<point> sourcePoints(2000), targetPoints(3000);
  for (auto& p : sourcePoints)
    p = {u(random), u(random), u(random) / 10};
  for (auto& p : targetPoints)
    p = {u(random), u(random), u(random) / 10};
  Tressel::MemArray<1, point> sourceXYZ(Tressel::MultiIndex<1>(sourcePoints.size()));
  Tressel::MemArray<1, unsigned char> sourceCls(Tressel::MultiIndex<1>(sourcePoints.size()));
  for (std::size_t i = 0; i < sourcePoints.size(); ++i) {
    sourceXYZ[i] = sourcePoints[i];
    sourceCls[i] = static_cast<unsigned char>(2 + i % 5);
  }
  auto bbox = std::make_shared<Vantor::BoundingBox>();
  for (const point& p : sourcePoints)
    bbox->expand(p);
  const auto everySource = BruteForce::indices(0, sourcePoints.size());
  for (int dimension : {2, 3}) {
    Tressel::MemArray<1, point> targetXYZ(Tressel::MultiIndex<1>(targetPoints.size()));
    Tressel::MemArray<1, unsigned char> targetCls(Tressel::MultiIndex<1>(targetPoints.size()));
    for (std::size_t i = 0; i < targetPoints.size(); ++i) {
      targetXYZ[i] = targetPoints[i];
      targetCls[i] = i % 7 == 0 ? 9 : 1; // class 9 is outside the target range
    }
    Box box("0.4");
    box.target = MultiRange<double>("0:8");
    box.positions = true;
    const auto run = [&](auto tree) {
      classificationTransfer(tree, box, MultiArray<1, const point>(sourceXYZ.view()),
                             MultiArray<1, const unsigned char>(sourceCls.view()), targetXYZ.view(),
                             targetCls.view(), 4);
    };
    if (dimension == 2)
      run(std::make_shared<Vantor::QuadTree<unsigned>>(bbox, 64));
    else
      run(std::make_shared<Vantor::OcTree<unsigned>>(bbox, 64));
    for (std::size_t i = 0; i < targetPoints.size(); ++i) {
      const point& q = targetPoints[i];
      const auto found = BruteForce::nearest(sourcePoints, q, 0.16, dimension, everySource);
      const std::size_t best = found ? found->second : sourcePoints.size();
      if (i % 7 == 0 || best == sourcePoints.size()) {
        EXPECT_EQ(targetCls[i], i % 7 == 0 ? 9 : 1) << i;
        EXPECT_EQ(targetXYZ[i], q) << i;
      } else {
        EXPECT_EQ(targetCls[i], sourceCls[best]) << i;
        EXPECT_EQ(targetXYZ[i], sourcePoints[best]) << i;
      }
    }
  }
}

TEST(ClassificationTransferOLD, TreeTypedStepCopiesTheNearestClass) {
  Tressel::MemArray<1, point> sourceXYZ(Tressel::MultiIndex<1>(2),
                                        {point{0, 0, 0}, point{5, 0, 0}});
  Tressel::MemArray<1, unsigned char> sourceCls(Tressel::MultiIndex<1>(2), {3, 4});
  Tressel::MemArray<1, point> targetXYZ(Tressel::MultiIndex<1>(3),
                                        {point{0.5, 0, 0}, point{4.8, 0, 9}, point{2.5, 0, 0}});
  Tressel::MemArray<1, unsigned char> targetCls(Tressel::MultiIndex<1>(3), {1, 1, 1});
  Box box("1");
  box.positions = true;
  auto tree = std::make_shared<Vantor::QuadTree<unsigned>>(
      std::make_shared<Vantor::BoundingBox>(point{0, 0, 0}, point{5, 0, 0}), 64);
  classificationTransfer(tree, box, MultiArray<1, const point>(sourceXYZ.view()),
                         MultiArray<1, const unsigned char>(sourceCls.view()), targetXYZ.view(),
                         targetCls.view(), 1);
  EXPECT_EQ(targetCls[0], 3);
  EXPECT_EQ(targetCls[1], 4); // planimetric: z 9 does not matter
  EXPECT_EQ(targetCls[2], 1); // nothing within 1
  EXPECT_EQ(targetXYZ[1], (point{5, 0, 0}));
}

} // namespace
