// SPDX-License-Identifier: BSD-3-Clause
// Tests of reduction weights against a brute-force computation of their own (neighbour lists
// grown and accumulated by hand), the normalisation over fragments, reused boxes, messages; and
// of reduced clouds keeping exactly the chosen points with all their fields.
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "support/brute_force.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <omp.h>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Box = PointCloudReductionParameterBox;
using Vantor::PhysicalSpace::point;
using Vec = Vantor::PhysicalSpace::vector;

struct Cloud {
  std::vector<point> xyz;
  std::vector<Vec> normals;
  std::vector<float> planarity;

  StrongPtr<Tressel::Grid> grid(std::size_t fragmentSize = 0) const {
    Tressel::PointCloudBuilder b(xyz);
    b.addField("NormalVector", normals).addField("Planarity", planarity);
    return b.build(Tressel::sequentialPartition(xyz.size(), fragmentSize));
  }
};

// Points on a wavy surface with normals of any length and sign, planarity mostly above 0.001;
// a few points far apart, one alone.
Cloud randomCloud(unsigned seed, std::size_t n = 600) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  Cloud c;
  for (std::size_t i = 0; i < n; ++i) {
    const double x = 8 * u(random), y = 8 * u(random);
    c.xyz.emplace_back(100 + x, 200 + y, std::sin(x) + 0.02 * u(random));
    c.normals.emplace_back(u(random) - 0.5, u(random) - 0.5, 3 * (u(random) - 0.5));
    c.planarity.push_back(i % 17 == 0 ? 0.0005f : static_cast<float>(u(random)));
  }
  for (double d : {3.0, 6.5, 14.0}) {
    c.xyz.emplace_back(100 - d, 200, 0);
    c.normals.emplace_back(0, 0, -2);
    c.planarity.push_back(0.5f);
  }
  return c;
}

double dot(const Vec& a, const Vec& b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}

Vec upward(Vec v) {
  const double l = std::sqrt(dot(v, v));
  if (l > 0)
    v = Vec(v.x / l, v.y / l, v.z / l);
  return v.z < 0 ? -v : v;
}

// The weights of one fragment before the division by the median, by brute force.
std::vector<double> oracle(const Cloud& c, std::size_t begin, std::size_t end, double radius,
                           int k) {
  std::vector<double> out;
  const auto fragment = BruteForce::indices(begin, end);
  for (std::size_t i = begin; i < end; ++i) {
    if (!(c.planarity[i] >= 0.001)) {
      out.push_back(-1);
      continue;
    }
    std::vector<std::pair<double, std::size_t>> list;
    double r = radius;
    for (bool first = true; first || (list.size() < std::size_t(k) + 1 && r < 5.0); first = false) {
      if (!first)
        r *= 2;
      const auto query = BruteForce::sortedWithin(c.xyz, c.xyz[i], r * r, 3, fragment);
      list.insert(list.end(), query.begin(), query.end());
      std::stable_sort(list.begin(), list.end(),
                       [](const auto& a, const auto& b) { return a.first < b.first; });
    }
    if (list.empty()) {
      out.push_back(-1);
      continue;
    }
    const Vec ni = upward(c.normals[i]);
    double sd = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0;
    int taken = 0;
    for (const auto& [d2, j] : list) {
      if (j == i || taken == k)
        continue;
      ++taken;
      const Vec d = c.xyz[j] - c.xyz[i];
      const Vec nj = upward(c.normals[j]);
      sd += d2;
      s1 += dot(ni, d) * dot(ni, d);
      s2 += dot(ni - nj, ni - nj);
      s3 += dot(ni + nj, d) * dot(ni + nj, d);
      s4 += std::fabs(double(c.planarity[i]) - double(c.planarity[j]));
    }
    out.push_back((sd / k) * (s2 + s4) + s3 + sd + s1);
  }
  return out;
}

float medianOf(std::vector<float> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

std::vector<float> weightsOf(const StrongPtr<Tressel::Grid>& grid) {
  return Tressel::readField<float>(*(*grid)(Tressel::StandardCartesianChart3D, "Weights"));
}

std::string run(const StrongPtr<Tressel::Grid>& grid, Box& box) {
  CaptureStdout();
  EXPECT_EQ(computePointCloudReductionWeights(grid, box), "");
  return GetCapturedStdout();
}

TEST(ReductionWeights, MatchBruteForceAndAreDividedByTheMedianOfFragmentMedians) {
  for (const auto& [radius, k, fragment] :
       {std::tuple{0.3, 8, 0}, {0.1, 20, 250}, {1.0, 1, 200}, {6.0, 3, 0}}) {
    const Cloud c = randomCloud(static_cast<unsigned>(k));
    const auto grid = c.grid(static_cast<std::size_t>(fragment));
    Box box;
    box.radius = radius;
    box.neighbours = k;
    const std::string out = run(grid, box);
    const std::size_t size = fragment == 0 ? c.xyz.size() : std::size_t(fragment);
    std::vector<float> raw, medians, maxima;
    for (std::size_t begin = 0; begin < c.xyz.size(); begin += size) {
      const auto w = oracle(c, begin, std::min(c.xyz.size(), begin + size), radius, k);
      std::vector<float> part(w.begin(), w.end());
      raw.insert(raw.end(), part.begin(), part.end());
      medians.push_back(medianOf(part));
      maxima.push_back(*std::max_element(part.begin(), part.end()));
    }
    ASSERT_EQ(box.fragmentMedianWeights.size(), medians.size());
    for (std::size_t f = 0; f < medians.size(); ++f) {
      EXPECT_NEAR(box.fragmentMedianWeights[f], medians[f], 1e-4 * std::fabs(medians[f]));
      EXPECT_NEAR(box.fragmentMaxWeights[f], maxima[f], 1e-4 * std::fabs(maxima[f]));
    }
    const float median = medianOf(box.fragmentMedianWeights);
    const auto weights = weightsOf(grid);
    for (std::size_t i = 0; i < raw.size(); ++i)
      ASSERT_NEAR(weights[i], raw[i] / median, 1e-4 * std::fabs(raw[i] / median) + 1e-6)
          << "point " << i << " radius " << radius << " K " << k;
    EXPECT_NE(out.find("median weight: "), std::string::npos);
    // A planarity below 0.001 is marked: -1 before the division.
    EXPECT_FLOAT_EQ(weights[0], -1.0f / median);
  }
}

TEST(ReductionWeights, RepeatedNeighboursFewNeighboursAndLonelyPoints) {
  // K = 3, radius 0.6. Point 0 finds itself and p1 at 0.5, then at radius 1.2 both again and p2
  // at 1: its first three entries other than itself are p1, p1, p2. Point 3 (p2 at 2) grows to
  // 2.4 and takes p2 alone, still divided by K. Point 4 is alone: the radius grows past 5 and
  // its list holds only itself, so its weight is 0.
  Cloud c;
  c.xyz = {{0, 0, 0}, {0, 0.5, 0}, {1, 0, 0}, {3, 0, 0}, {100, 0, 0}};
  c.normals.assign(5, Vec(0, 0, 1));
  c.normals[1] = Vec(0, 1, 1);
  c.planarity = {0.5f, 0.25f, 0.5f, 0.75f, 0.5f};
  const auto grid = c.grid();
  Box box;
  box.radius = 0.6;
  box.neighbours = 3;
  run(grid, box);
  const double turn = 0.5 + (1 - std::sqrt(0.5)) * (1 - std::sqrt(0.5)); // |n0 - n1|^2
  const double mean = 0.125;                                             // ((n0 + n1) . d1)^2
  const double expected0 = (1.5 / 3) * (2 * turn + 2 * 0.25) + 2 * mean + 1.5;
  const double expected3 = (4.0 / 3) * 0.25 + 4; // p2 lies in the tangent plane of point 3
  const float median = medianOf(box.fragmentMedianWeights);
  const auto weights = weightsOf(grid);
  EXPECT_NEAR(weights[0] * median, expected0, 1e-5);
  EXPECT_NEAR(weights[3] * median, expected3, 1e-5);
  EXPECT_EQ(weights[4], 0.0f);
  const auto raw = oracle(c, 0, 5, 0.6, 3);
  EXPECT_NEAR(raw[0], expected0, 1e-9);
}

TEST(ReductionWeights, AReusedBoxKeepsEarlierFragmentsInTheMedian) {
  const Cloud c = randomCloud(4, 300);
  Box box;
  run(c.grid(100), box);
  const auto first = box.fragmentMedianWeights;
  const auto grid = c.grid();
  run(grid, box);
  ASSERT_EQ(box.fragmentMedianWeights.size(), first.size() + 1);
  EXPECT_TRUE(std::equal(first.begin(), first.end(), box.fragmentMedianWeights.begin()));
  const float median = medianOf(box.fragmentMedianWeights);
  const float alone = box.fragmentMedianWeights.back();
  EXPECT_NE(median, alone);
  const auto raw = oracle(c, 0, c.xyz.size(), box.radius, box.neighbours);
  EXPECT_NEAR(weightsOf(grid)[5], raw[5] / median, 1e-4 * std::fabs(raw[5] / median));
}

TEST(ReductionWeights, MissingInputsAndBadBoxesSayWhat) {
  const auto bare = Tressel::PointCloudBuilder({{0, 0, 0}}).build({{0}});
  Box box;
  EXPECT_EQ(run(bare, box), "PointCloudReductionWithWeights: ERROR: no f_normalvector\n");
  EXPECT_EQ(box.message, "ERROR: no f_normalvector");
  Tressel::PointCloudBuilder b({{0, 0, 0}});
  b.addField("NormalVector", std::vector<Vec>{{0, 0, 1}});
  Box planarity;
  EXPECT_EQ(run(b.build({{0}}), planarity),
            "PointCloudReductionWithWeights: ERROR: no f_planarity\n");
  Box zero;
  zero.neighbours = 0;
  run(randomCloud(1, 20).grid(), zero);
  EXPECT_EQ(zero.message, "ERROR: neighbours must be at least 1");
  CaptureStdout();
  Box().print();
  EXPECT_EQ(GetCapturedStdout(), "radius: 0.5\nneighbours: 8\n");
}

// Copies of positions shuffled among the points, each with its own normal and planarity: a
// copy's K neighbours are the first copies of its position other than itself (in index order,
// the tree's order among equal distances), and five far copies grow their radius together.
TEST(ReductionWeights, CopiesOfPositionsMatchBruteForce) {
  Cloud c = randomCloud(5, 400);
  std::mt19937 random(2);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  const auto copy = [&](const point& p) {
    c.xyz.push_back(p);
    c.normals.emplace_back(u(random) - 0.5, u(random) - 0.5, 1.0);
    c.planarity.push_back(static_cast<float>(u(random)));
  };
  const point a = c.xyz[3], b = c.xyz[7];
  for (int k = 0; k < 600; ++k) {
    copy(a);
    if (k % 3 == 0)
      copy(b);
    if (k < 5)
      copy({150, 250, 1});
  }
  std::vector<std::size_t> order(c.xyz.size());
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), random);
  Cloud shuffled;
  for (std::size_t i : order) {
    shuffled.xyz.push_back(c.xyz[i]);
    shuffled.normals.push_back(c.normals[i]);
    shuffled.planarity.push_back(c.planarity[i]);
  }
  for (const auto& [radius, k] : {std::pair{0.3, 8}, {0.05, 70}}) {
    const auto grid = shuffled.grid();
    Box box;
    box.radius = radius;
    box.neighbours = k;
    run(grid, box);
    const auto raw = oracle(shuffled, 0, shuffled.xyz.size(), radius, k);
    // Copies among copies weigh 0, and they are most points: the weights then stay undivided.
    EXPECT_EQ(medianOf(box.fragmentMedianWeights), 0.0f);
    const auto weights = weightsOf(grid);
    for (std::size_t i = 0; i < raw.size(); ++i)
      ASSERT_NEAR(weights[i], raw[i], 1e-4 * std::fabs(raw[i]) + 1e-6)
          << "point " << i << " K " << k;
  }
}

TEST(ReductionWeights, ResultsDoNotDependOnThreads) {
  const Cloud c = randomCloud(9, 2000);
  const int before = omp_get_max_threads();
  std::vector<std::vector<float>> results;
  for (int threads : {1, 3}) {
    omp_set_num_threads(threads);
    const auto grid = c.grid(700);
    Box box;
    run(grid, box);
    results.push_back(weightsOf(grid));
  }
  omp_set_num_threads(before);
  EXPECT_EQ(results[0], results[1]);
}

// ---- Reduced clouds --------------------------------------------------------------------------

TEST(ReducedClouds, KeepExactlyTheChosenPointsWithAllTheirFieldsInOrder) {
  const std::vector<point> xyz{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0},
                               {5, 0, 0}, {6, 0, 0}, {7, 0, 0}, {8, 0, 0}};
  const std::vector<float> w{0.5f, 3, -1, 2, 3, 0.1f, -0.5f, 1, 2.5f};
  Tressel::PointCloudBuilder b(xyz);
  b.addField("Weights", w)
      .addField("Classification", std::vector<unsigned char>{1, 2, 3, 4, 5, 6, 7, 8, 9});
  b.addField("PointIndex", std::vector<unsigned long long>{10, 11, 12, 13, 14, 15, 16, 17, 18});
  const auto grid = b.build({{0, 1, 2, 3, 4}, {5, 6, 7, 8}});
  const auto classesOf = [](const StrongPtr<Tressel::Grid>& g) {
    return Tressel::readField<unsigned char>(
        *(*g)(Tressel::StandardCartesianChart3D, "Classification"));
  };
  PointCloudSizeReductionParameterBox box;
  box.keep = 0.4; // 2 of 5 and 2 of 4 (1.6 rounds to 2), and the unweighted points
  auto reduced = reducedPointCloud(grid, box);
  ASSERT_TRUE(reduced);
  EXPECT_EQ(classesOf(reduced), (std::vector<unsigned char>{2, 3, 5, 7, 8, 9}));
  EXPECT_EQ(Tressel::readField<unsigned long long>(
                *(*reduced)(Tressel::StandardCartesianChart3D, "PointIndex")),
            (std::vector<unsigned long long>{0, 1, 2, 3, 4, 5}));
  box.keep_unweighted = false;
  box.threshold = 2;
  reduced = reducedPointCloud(grid, box);
  EXPECT_EQ(classesOf(reduced), (std::vector<unsigned char>{2, 4, 5, 9}));
  EXPECT_EQ(Tressel::readField<point>(*reduced->CartesianPositions()),
            (std::vector<point>{xyz[1], xyz[3], xyz[4], xyz[8]}));
  const auto noWeights = Tressel::PointCloudBuilder(xyz).build({{0, 1, 2, 3, 4, 5, 6, 7, 8}});
  PointCloudSizeReductionParameterBox none;
  CaptureStdout();
  EXPECT_FALSE(reducedPointCloud(noWeights, none));
  EXPECT_EQ(GetCapturedStdout(), "reduceSizeOfPointCloud: ERROR: no f_weights\n");
}

} // namespace
