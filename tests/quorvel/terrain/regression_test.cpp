// SPDX-License-Identifier: BSD-3-Clause
// Tests of the planar regression against an oracle of its own (brute-force neighbourhoods and a
// plane solved by Gaussian elimination about the centroid), its box and its messages.
#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/terrain.hpp"
#include "support/brute_force.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numeric>
#include <omp.h>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Box = PlanarRegressionParameterBox;
using Plane = Vantor::PhysicalSpace::vector;

// ---- The oracle ----------------------------------------------------------------------------

// Least-squares plane z = a x + b y + c through the points, by Gaussian elimination with partial
// pivoting on the normal equations about the centroid.
bool solvedPlane(const std::vector<point>& pts, Plane& plane) {
  if (pts.size() < 3)
    return false;
  double cx = 0, cy = 0, cz = 0;
  for (const point& p : pts)
    cx += p.x, cy += p.y, cz += p.z;
  const double n = static_cast<double>(pts.size());
  cx /= n, cy /= n, cz /= n;
  std::array<std::array<double, 3>, 2> m{}; // [sxx sxy | sxz], [sxy syy | syz]
  for (const point& p : pts) {
    const double dx = p.x - cx, dy = p.y - cy, dz = p.z - cz;
    m[0][0] += dx * dx, m[0][1] += dx * dy, m[0][2] += dx * dz;
    m[1][0] += dx * dy, m[1][1] += dy * dy, m[1][2] += dy * dz;
  }
  if (std::fabs(m[1][0]) > std::fabs(m[0][0]))
    std::swap(m[0], m[1]);
  if (m[0][0] == 0)
    return false;
  const double f = m[1][0] / m[0][0];
  for (int k = 0; k < 3; ++k)
    m[1][k] -= f * m[0][k];
  if (std::fabs(m[1][1]) < 1e-9)
    return false;
  const double b = m[1][2] / m[1][1];
  const double a = (m[0][2] - m[0][1] * b) / m[0][0];
  plane = Plane(a, b, cz - a * cx - b * cy);
  return true;
}

double distanceFrom(const Plane& plane, const point& p) {
  return (p.z - plane.x * p.x - plane.y * p.y - plane.z) /
         std::sqrt(1 + plane.x * plane.x + plane.y * plane.y);
}

struct OracleRun {
  std::vector<unsigned char> classes;
  int rounds = 0; // rounds whose point step ran
};

// The regression of one fragment, round by round, from brute-force neighbourhoods. Without
// stopRule only maximum_iteration ends the rounds.
OracleRun oracle(const std::vector<point>& xyz, std::vector<unsigned char> cls, Box box,
                 bool stopRule = true) {
  if (box.reset >= 0)
    std::fill(cls.begin(), cls.end(), static_cast<unsigned char>(box.reset));
  const auto& working = box.working_range.empty() ? box.source : box.working_range;
  const int dims = box.dimension == "3D" ? 3 : 2;
  const bool anyTree = box.dimension == "2D" || box.dimension == "3D";
  const std::size_t n = xyz.size();
  std::vector<double> radius(n, box.radius);
  std::vector<std::size_t> last(n, 0);
  double previousMaximum = box.radius;
  std::size_t previousSize = 0;
  OracleRun run;
  for (int round = 0; round < box.maximum_iteration; ++round) {
    const double maximum = *std::max_element(radius.begin(), radius.end());
    std::vector<std::size_t> tree;
    for (std::size_t j = 0; anyTree && j < n; ++j)
      if (box.source.contains(cls[j], 1e-9) || box.additional.contains(cls[j], 1e-9))
        tree.push_back(j);
    if (stopRule && maximum == previousMaximum && tree.size() == previousSize)
      break;
    previousSize = tree.size();
    ++run.rounds;
    const std::vector<unsigned char> before = cls;
    for (std::size_t i = 0; i < n; ++i) {
      if (!working.contains(before[i], 1e-9))
        continue;
      const auto within = BruteForce::within(xyz, xyz[i], radius[i] * radius[i], dims, tree);
      const std::size_t found = within.size();
      std::vector<point> near;
      for (const auto& [d2, j] : within)
        if (j != i)
          near.push_back(xyz[j]);
      if (found == last[i])
        continue;
      last[i] = found;
      if (found <= 3) {
        radius[i] *= 2;
        continue;
      }
      std::sort(near.begin(), near.end(), [](const point& p, const point& q) { return p.z < q.z; });
      std::size_t drop = box.quantile * near.size() / 100;
      if (box.quantile != 0)
        drop = std::max<std::size_t>(drop, 1);
      if (near.size() < drop + 3)
        continue;
      Plane plane;
      if (!solvedPlane(std::vector<point>(near.begin() + static_cast<long>(drop), near.end()),
                       plane))
        continue;
      if (box.range.contains(distanceFrom(plane, xyz[i]), 1e-9))
        cls[i] = box.target < 0 ? static_cast<unsigned char>(cls[i] + 100)
                                : static_cast<unsigned char>(box.target);
    }
    previousMaximum = maximum;
  }
  run.classes = cls;
  return run;
}

// ---- Fixtures ------------------------------------------------------------------------------

// A sloped ground with noise at georeferenced coordinates, dense on the left and thinning out to
// the right (so that radii must grow there), with vegetation points 1 to 8 m above it. Seeds:
// every fifth ground point at both ends is class 2, the rest class 1.
struct Terrain {
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  std::vector<bool> ground;

  explicit Terrain(unsigned seed, std::size_t n = 1500) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::normal_distribution<double> noise(0.0, 0.04);
    for (std::size_t i = 0; i < n; ++i) {
      const double x = 30 * std::pow(u(random), 2.0), y = 20 * u(random);
      const bool isGround = u(random) < 0.75;
      const double z =
          200 + 0.1 * x - 0.05 * y + noise(random) + (isGround ? 0 : 1 + 7 * u(random));
      xyz.push_back({6.5e5 + x, 5.3e6 + y, z});
      ground.push_back(isGround);
      cls.push_back(isGround && (x < 8 || x > 20) && i % 5 == 0 ? 2 : 1);
    }
  }

  MultiArray<1, point> positions() { return MultiArray<1, point>::dense(xyz.data(), {xyz.size()}); }
  StrongPtr<BoundingBox> bbox() const {
    auto box = std::make_shared<BoundingBox>(xyz.front(), xyz.front());
    for (const point& p : xyz)
      box->expand(p);
    return box;
  }
};

std::vector<unsigned char> regressed(Terrain terrain, Box& box, int* rounds = nullptr) {
  auto view = MultiArray<1, unsigned char>::dense(terrain.cls.data(), {terrain.cls.size()});
  if (rounds)
    *rounds = detail::regressFragment(terrain.positions(), terrain.bbox(), box, view);
  else
    EXPECT_TRUE(planarRegressionOfMultiArray(terrain.positions(), terrain.bbox(), box, view));
  return terrain.cls;
}

Box growing() {
  Box box;
  box.working_range = MultiRange<double>("0:1");
  box.maximum_iteration = 40;
  return box;
}

// ---- Rounds against the oracle --------------------------------------------------------------

TEST(PlanarRegression, MatchesTheOracleInEveryVariant) {
  struct Variant {
    const char* name;
    void (*set)(Box&);
  };
  const Variant variants[] = {
      {"growing 3D", [](Box& b) { b.dimension = "3D"; }},
      {"quantile", [](Box& b) { b.quantile = 25; }},
      {"quantile at least one", [](Box& b) { b.quantile = 1; }},
      {"small radius", [](Box& b) { b.radius = 0.4; }},
      {"additional", [](Box& b) { b.additional = MultiRange<double>("1"); }},
      {"reset then mark",
       [](Box& b) {
         b.reset = 2;
         b.source = MultiRange<double>("2");
         b.working_range = MultiRange<double>();
         b.range = MultiRange<double>("0.3:100,-100:-0.3");
         b.target = -1;
       }},
      {"unknown dimension", [](Box& b) { b.dimension = "2.5D"; }},
      {"no rounds", [](Box& b) { b.maximum_iteration = 0; }},
  };
  const Terrain terrain(7);
  Box plain = growing();
  int rounds = 0;
  const auto base = regressed(terrain, plain, &rounds);
  const auto reference = oracle(terrain.xyz, terrain.cls, growing());
  ASSERT_EQ(base, reference.classes);
  EXPECT_EQ(rounds, reference.rounds);
  EXPECT_GT(reference.rounds, 3);                           // the ground grew over several rounds
  EXPECT_LT(reference.rounds, growing().maximum_iteration); // and then stopped by itself
  // Grown ground is ground: no vegetation point joined it, most ground points did.
  std::size_t grown = 0, wrong = 0;
  for (std::size_t i = 0; i < base.size(); ++i) {
    grown += terrain.ground[i] && base[i] == 2;
    wrong += !terrain.ground[i] && base[i] == 2;
  }
  EXPECT_EQ(wrong, 0u);
  EXPECT_GT(grown, terrain.xyz.size() / 2);

  for (const Variant& v : variants) {
    Box box = growing();
    v.set(box);
    const auto expected = oracle(terrain.xyz, terrain.cls, box);
    Box used = box;
    EXPECT_EQ(regressed(terrain, used), expected.classes) << v.name;
    if (std::string(v.name) != "growing 3D") { // 3D finds the same ground on this cloud
      EXPECT_NE(expected.classes, base) << v.name << " changes nothing";
    }
  }
}

// Copies of a ground point and of a vegetation point, seeds and candidates shuffled among the
// terrain: copies that share radius, count and tree membership share an outcome, the others
// (a seed copy is in the tree, a candidate copy is not) keep their own, as the oracle says.
TEST(PlanarRegression, CopiesOfPositionsMatchTheOracle) {
  Terrain terrain(7, 900);
  std::size_t groundPoint = 0, vegetation = 0;
  while (!terrain.ground[groundPoint] || terrain.xyz[groundPoint].x - 6.5e5 > 8)
    ++groundPoint;
  while (terrain.ground[vegetation])
    ++vegetation;
  for (int k = 0; k < 400; ++k)
    for (std::size_t i : {groundPoint, vegetation}) {
      terrain.xyz.push_back(terrain.xyz[i]);
      terrain.cls.push_back(k % 4 == 0 ? 2 : 1);
      terrain.ground.push_back(terrain.ground[i]);
    }
  std::vector<std::size_t> order(terrain.xyz.size());
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(4));
  Terrain shuffled = terrain;
  for (std::size_t k = 0; k < order.size(); ++k) {
    shuffled.xyz[k] = terrain.xyz[order[k]];
    shuffled.cls[k] = terrain.cls[order[k]];
  }
  for (const char* dimension : {"2D", "3D"}) {
    Box box = growing();
    box.dimension = dimension;
    Box used = box;
    EXPECT_EQ(regressed(shuffled, used), oracle(shuffled.xyz, shuffled.cls, box).classes)
        << dimension;
  }
}

TEST(PlanarRegression, TargetsWrapAndResetAndNoRoundsAsDefined) {
  // Four neighbours on the plane z = 0 around a point 0.5 above it.
  std::vector<point> xyz{{0, 0, 0.5}, {1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {1, 1, 0}};
  auto run = [&](std::vector<unsigned char> cls, Box box) {
    auto positions = MultiArray<1, point>::dense(xyz.data(), {xyz.size()});
    auto view = MultiArray<1, unsigned char>::dense(cls.data(), {cls.size()});
    auto bbox = std::make_shared<BoundingBox>(point{-1, -1, 0}, point{1, 1, 0.5});
    planarRegressionOfMultiArray(positions, bbox, box, view);
    return cls;
  };
  Box box;
  box.source = MultiRange<double>("2,200");
  box.range = MultiRange<double>("0.4:0.6");
  box.radius = 1.5;
  box.target = -1;
  EXPECT_EQ(run({2, 2, 2, 2, 2, 2}, box)[0], 102);
  EXPECT_EQ(run({200, 2, 2, 2, 2, 2}, box)[0], 44); // 300 wraps to 44
  box.target = 7;
  const std::vector<unsigned char> twos(6, 2);
  const auto seven = run(twos, box);
  EXPECT_EQ(seven[0], 7);
  EXPECT_EQ(seven, oracle(xyz, twos, box).classes);
  box.target = 300; // truncated to 8 bits
  EXPECT_EQ(run({2, 2, 2, 2, 2, 2}, box)[0], 44);
  box.maximum_iteration = 0;
  box.reset = 9;
  EXPECT_EQ(run({2, 2, 2, 2, 2, 2}, box), std::vector<unsigned char>(6, 9));
  // At most three neighbours: no fit in that round, whatever the distance.
  Box few = box;
  few.reset = -1;
  few.maximum_iteration = 1;
  few.radius = 0.9; // the centre alone
  EXPECT_EQ(run({2, 2, 2, 2, 2, 2}, few)[0], 2);
  few.maximum_iteration = 2; // the doubled radius finds all six
  EXPECT_EQ(run({2, 2, 2, 2, 2, 2}, few)[0], 44);
}

TEST(PlanarRegression, StopsAtTheRoundLimitOrWhenTheTreeAndRadiiStay) {
  // A row of points 1 apart on a plane, ground only at its left end: every round grows the
  // ground by what the seeds' neighbourhoods reach, so the round limit decides how far.
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  for (int k = 0; k < 40; ++k)
    for (int j = 0; j < 2; ++j) {
      xyz.push_back({100.0 + k, 50.0 + j + 0.01 * k, 10 + 0.02 * k});
      cls.push_back(k < 3 ? 2 : 1);
    }
  Terrain row(0, 0);
  row.xyz = xyz;
  row.cls = cls;
  Box box = growing();
  box.radius = 2.5;
  std::size_t previous = 0;
  for (int limit : {1, 2, 3}) {
    box.maximum_iteration = limit;
    Box used = box;
    const auto result = regressed(row, used);
    EXPECT_EQ(result, oracle(xyz, cls, box).classes) << limit;
    const auto ground = static_cast<std::size_t>(std::count(result.begin(), result.end(), 2));
    EXPECT_GT(ground, previous) << limit;
    previous = ground;
  }

  // The tree keeps its size while its points change and no radius grows: the rounds stop,
  // although a further round would change classes. Two clusters far apart, each of five points
  // on z = 0 (class 1, in the tree) and points 1 above them: in the first, P (class 1) leaves the
  // tree as 101, and R (class 2, a candidate outside the tree) stays, its plane raised by P; in
  // the second, S (class 2) enters the tree as 102.
  std::vector<point> pair;
  std::vector<unsigned char> pairClasses;
  for (double shift : {0.0, 100.0}) {
    for (point q :
         {point{0, 0, 0}, point{1, 0, 0}, point{0, 1, 0}, point{1, 1, 0}, point{2, 0.5, 0}}) {
      pair.push_back({q.x + shift, q.y, 0});
      pairClasses.push_back(1);
    }
    pair.push_back({0.5 + shift, 0.5, 1});
    pairClasses.push_back(shift == 0 ? 1 : 2); // P, S
  }
  pair.push_back({0.5, 0.6, 1}); // R
  pairClasses.push_back(2);
  Terrain clusters(0, 0);
  clusters.xyz = pair;
  clusters.cls = pairClasses;
  Box swap;
  swap.source = MultiRange<double>("1,102");
  swap.working_range = MultiRange<double>("1:2");
  swap.range = MultiRange<double>("0.9:1.1");
  swap.radius = 3;
  swap.target = -1;
  const auto stopped = oracle(pair, pairClasses, swap);
  const auto endless = oracle(pair, pairClasses, swap, false);
  EXPECT_EQ(stopped.rounds, 1);
  EXPECT_EQ(endless.classes.back(), 102); // R, had a second round run
  Box used = swap;
  int rounds = 0;
  const auto result = regressed(clusters, used, &rounds);
  EXPECT_EQ(rounds, 1);
  EXPECT_EQ(result, stopped.classes);
  EXPECT_EQ(result[5], 101);
  EXPECT_EQ(result[11], 102);
  EXPECT_EQ(result.back(), 2);
}

TEST(PlanarRegression, ResultsDoNotDependOnThreads) {
  const Terrain terrain(5, 3000);
  const int saved = omp_get_max_threads();
  std::vector<std::vector<unsigned char>> results;
  for (int threads : {2, 4, 7}) { // 1, 3 and 6 working threads
    omp_set_num_threads(threads);
    Box box = growing();
    box.quantile = 10;
    results.push_back(regressed(terrain, box));
  }
  omp_set_num_threads(saved);
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

// ---- The box and the grid -------------------------------------------------------------------

TEST(PlanarRegressionBox, PrintsItsFieldsAndKeepsTheWorkingRange) {
  Box box;
  CaptureStdout();
  box.print();
  EXPECT_EQ(GetCapturedStdout(), "ParameterBox.fieldname: Classification\n"
                                 "ParameterBox.range: -0.200000:0.200000\n"
                                 "ParameterBox.source: 2.000000:2.000000\n"
                                 "ParameterBox.additional: \n"
                                 "ParameterBox.radius: 1\n"
                                 "ParameterBox.target: 2\n"
                                 "ParameterBox.maximum_iteration: 10\n"
                                 "ParameterBox.reset: -1\n"
                                 "ParameterBox.quantile: 0\n"
                                 "ParameterBox.dimension: 2D\n");
  Terrain terrain(1, 50);
  box.maximum_iteration = 0;
  regressed(terrain, box);
  EXPECT_EQ(box.working_range.to_string(), "2.000000:2.000000"); // filled from source
  box.source = MultiRange<double>("5");
  regressed(terrain, box);
  EXPECT_EQ(box.working_range.to_string(), "2.000000:2.000000"); // and kept
}

// Three x-y tiles of a terrain cloud; the middle one holds no class array.
struct TiledTerrain {
  Terrain terrain{21, 1200};
  Tressel::Partition partition;
  StrongPtr<Grid> grid;
  std::vector<StrongPtr<FragmentID>> ids;

  TiledTerrain() {
    partition.resize(3);
    for (std::size_t i = 0; i < terrain.xyz.size(); ++i)
      partition[std::min<std::size_t>(2, static_cast<std::size_t>((terrain.xyz[i].x - 6.5e5) / 10))]
          .push_back(i);
    grid = Tressel::PointCloudBuilder(terrain.xyz).build(partition);
    auto positions = grid->CartesianPositions();
    ids = positions->getFragmentIDs().fragments();
    StrongPtr<Field> classes = (*grid)["Classification"];
    for (std::size_t k : {0u, 2u}) {
      std::vector<unsigned char> part;
      for (std::size_t i : partition[k])
        part.push_back(terrain.cls[i]);
      classes->setPersistentData(
          std::make_shared<MemArray<1, unsigned char>>(Tressel::MultiIndex<1>(part.size()), part),
          ids[k]);
    }
  }

  std::vector<point> xyzOf(std::size_t k) const {
    std::vector<point> out;
    for (std::size_t i : partition[k])
      out.push_back(terrain.xyz[i]);
    return out;
  }
  std::vector<unsigned char> clsOf(std::size_t k) const {
    std::vector<unsigned char> out;
    for (std::size_t i : partition[k])
      out.push_back(terrain.cls[i]);
    return out;
  }
  std::vector<unsigned char> result(std::size_t k) const {
    auto array = fragmentArray<unsigned char>(*(*grid)["Classification"].find(), *ids[k]);
    return array ? std::vector<unsigned char>(array->data(), array->data() + array->size())
                 : std::vector<unsigned char>{};
  }
};

TEST(PlanarRegressionOfGrid, FragmentWithoutClassesTurnsSourceToZeroForTheRest) {
  // Seeds near the plane of the other seeds are marked (2 + 100).
  Box first;
  first.target = -1;
  TiledTerrain tiles;
  Box box = first;
  CaptureStdout();
  EXPECT_EQ(planarRegressionOfGrid(tiles.grid, box, nullptr), "");
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(out.find("ParameterBox.fieldname: Classification\n"), 0u);
  for (const char* line : {"PlanarRegressionIteration, INFO: procession 1 / 3 \t\r",
                           "PlanarRegressionIteration, INFO: procession 2 / 3 \t\r",
                           "PlanarRegressionIteration, INFO: procession 3 / 3 \t\r"})
    EXPECT_NE(out.find(line), std::string::npos) << line;
  EXPECT_EQ(box.source.to_string(), "0.000000:0.000000");
  EXPECT_EQ(box.working_range.to_string(), "2.000000:2.000000");

  const auto firstResult = oracle(tiles.xyzOf(0), tiles.clsOf(0), first).classes;
  EXPECT_EQ(tiles.result(0), firstResult);
  EXPECT_NE(firstResult, tiles.clsOf(0));
  // The middle fragment gets zeros; from there on the tree holds class 0 points, which the
  // last fragment has none of, so its seeds stay as they were.
  EXPECT_EQ(tiles.result(1), std::vector<unsigned char>(tiles.partition[1].size(), 0));
  EXPECT_EQ(tiles.result(2), tiles.clsOf(2));
  EXPECT_NE(oracle(tiles.xyzOf(2), tiles.clsOf(2), first).classes, tiles.clsOf(2));
}

TEST(PlanarRegressionOfGrid, ErrorsReplaceTheMessage) {
  Box box;
  CaptureStdout();
  EXPECT_EQ(planarRegressionOfGrid(std::make_shared<Grid>(), box, nullptr),
            "ERROR: no f_vertices found");
  GetCapturedStdout();

  // Fragment 0 without positions; a fragment of NaN points without a box.
  TiledTerrain tiles;
  auto positions = tiles.grid->CartesianPositions();
  auto broken = std::make_shared<Field>(positions->getFragmentIDCollection());
  for (std::size_t k = 1; k < tiles.ids.size(); ++k)
    broken->setCreator(tiles.ids[k], positions->getCreator(tiles.ids[k]));
  (*tiles.grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D))["Positions"] =
      broken;
  box.message = "earlier text";
  CaptureStdout();
  EXPECT_EQ(planarRegressionOfGrid(tiles.grid, box, nullptr), "ERROR: no m_coordinates");
  GetCapturedStdout();
  EXPECT_FALSE(tiles.result(2).empty()); // the others were computed

  const double nan = std::numeric_limits<double>::quiet_NaN();
  std::vector<point> xyz{{0, 0, 0}, {1, 0, 0}, {nan, nan, 0}};
  auto grid = Tressel::PointCloudBuilder(xyz).build(Tressel::tilePartition(xyz, 10.0));
  Box other;
  CaptureStdout();
  EXPECT_EQ(planarRegressionOfGrid(grid, other, nullptr), "ERROR: no fragment bbox");
  GetCapturedStdout();
}

} // namespace
