// SPDX-License-Identifier: BSD-3-Clause
// Tests of the relative height and below boxes against brute-force squares.
#include "quorvel/terrain/terrain.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <omp.h>
#include <random>

namespace {

using Tressel::MultiArray;
using Vantor::BoundingBox;
using Vantor::MultiRange;
using Vantor::PhysicalSpace::point;

// Uniform points, or tight clusters with exact duplicates and equal heights, at georeferenced
// coordinates.
std::vector<point> makeFragment(bool clustered, std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> u(0.0, 40.0);
  std::normal_distribution<double> spread(0.0, 0.6);
  std::vector<point> out;
  while (out.size() < n) {
    if (!clustered) {
      out.push_back({4.2e5 + u(random), 5.1e6 + u(random), 300 + u(random) / 8});
      continue;
    }
    const point c{4.2e5 + 5 * std::floor(u(random) / 5), 5.1e6 + 5 * std::floor(u(random) / 5),
                  300 + std::round(u(random)) / 4}; // heights on a 0.25 m step: many ties
    for (int k = 0; k < 6 && out.size() < n; ++k)
      out.push_back(
          {c.x + spread(random), c.y + spread(random), k % 3 == 0 ? c.z : c.z + spread(random)});
    if (out.size() < n)
      out.push_back(out.back()); // a duplicate
  }
  return out;
}

std::shared_ptr<BoundingBox> boxOf(const std::vector<point>& xyz) {
  auto box = std::make_shared<BoundingBox>(xyz.front(), xyz.front());
  for (const point& p : xyz)
    box->expand(p);
  return box;
}

MultiArray<1, const point> view(const std::vector<point>& xyz) {
  return MultiArray<1, const point>::dense(xyz.data(), {xyz.size()});
}
template <class T>
MultiArray<1, T> view(std::vector<T>& values) {
  return MultiArray<1, T>::dense(values.data(), {values.size()});
}

// Brute force: the points j (that `in` accepts) with |x_j - x_i| <= h and |y_j - y_i| <= h.
template <class In>
std::vector<std::size_t> square(const std::vector<point>& xyz, std::size_t i, double h,
                                const In& in) {
  std::vector<std::size_t> out;
  for (std::size_t j = 0; j < xyz.size(); ++j)
    if (in(j) && std::fabs(xyz[j].x - xyz[i].x) <= h && std::fabs(xyz[j].y - xyz[i].y) <= h)
      out.push_back(j);
  return out;
}

template <class In = bool (*)(std::size_t)>
std::vector<float> bruteHeights(
    const std::vector<point>& xyz, double halfWidth, In in = [](std::size_t) { return true; }) {
  const double h = static_cast<float>(halfWidth);
  std::vector<float> out(xyz.size(), -1.0f);
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    if (!in(i))
      continue;
    double lowest = std::numeric_limits<double>::infinity();
    for (std::size_t j : square(xyz, i, h, in))
      lowest = std::min(lowest, xyz[j].z);
    out[i] = static_cast<float>(xyz[i].z - lowest);
  }
  return out;
}

std::vector<unsigned char> bruteBelows(const std::vector<point>& xyz, double halfWidth) {
  const double h = static_cast<float>(halfWidth);
  std::vector<unsigned char> out(xyz.size());
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    const auto near = square(xyz, i, h, [](std::size_t) { return true; });
    std::size_t below = 0;
    for (std::size_t j : near)
      below += xyz[j].z < xyz[i].z;
    out[i] = static_cast<unsigned char>(double(below) / double(near.size()) * 255.0);
  }
  return out;
}

std::vector<float> heights(const std::vector<point>& xyz, double halfWidth, int threads = 0) {
  std::vector<float> out(xyz.size(), -1.0f);
  Tressel::RelativeHeightBox box;
  box.squareHalfWidth = halfWidth;
  box.threads = threads;
  EXPECT_TRUE(box.compute(view(out), view(xyz), boxOf(xyz)));
  return out;
}

std::vector<unsigned char> belows(const std::vector<point>& xyz, double halfWidth,
                                  int threads = 0) {
  std::vector<unsigned char> out(xyz.size(), 77);
  Tressel::RelativeBelowsBox box;
  box.squareHalfWidth = halfWidth;
  box.threads = threads;
  EXPECT_TRUE(box.compute(view(out), view(xyz), boxOf(xyz)));
  return out;
}

TEST(RelativeMeasures, MatchBruteForceOnRandomAndClusteredFragments) {
  for (bool clustered : {false, true})
    for (double halfWidth : {0.1, 0.75, 2.5}) {
      const auto xyz = makeFragment(clustered, 1500, clustered ? 5u : 6u);
      EXPECT_EQ(heights(xyz, halfWidth), bruteHeights(xyz, halfWidth))
          << clustered << " " << halfWidth;
      EXPECT_EQ(belows(xyz, halfWidth), bruteBelows(xyz, halfWidth))
          << clustered << " " << halfWidth;
    }
}

TEST(RelativeMeasures, SquareEdgesTiesAndLonelyPoints) {
  // Half width 0.1 is used as the float 0.100000001490116: a point 0.100000001 away is inside
  // the square, one 0.1000000016 away is not.
  const std::vector<point> edge{{10, 10, 5}, {10.100000001, 10, 4}, {9.8999999984, 10.05, 3}};
  EXPECT_EQ(heights(edge, 0.1), (std::vector<float>{1, 0, 0}));
  EXPECT_EQ(belows(edge, 0.1), (std::vector<unsigned char>{127, 0, 0}));

  // Equal heights are not below each other; ten points, four strictly below the first.
  const std::vector<point> level{{0, 0, 2}, {0.5, 0.5, 2}, {20, 20, 1}};
  EXPECT_EQ(belows(level, 1.0), (std::vector<unsigned char>{0, 0, 0}));
  EXPECT_EQ(heights(level, 1.0), (std::vector<float>{0, 0, 0}));
  std::vector<point> ten{{0, 0, 1}};
  for (int k = 1; k < 10; ++k)
    ten.push_back({0.05 * k, -0.05 * k, k < 5 ? 0.5 : (k < 7 ? 1.0 : 1.5)});
  EXPECT_EQ(belows(ten, 1.0)[0], 102);
  EXPECT_EQ(heights(ten, 1.0)[0], 0.5f);

  // A point outside the fragment's box is in no tree: height 0, below 255.
  std::vector<point> outside{{0, 0, 0}, {1, 1, 1}, {5, 5, 5}};
  std::vector<float> h(3, -1.0f);
  std::vector<unsigned char> b(3, 77);
  const auto small = std::make_shared<BoundingBox>(point{0, 0, 0}, point{1, 1, 1});
  Tressel::RelativeHeightBox{2.0}.compute(view(h), view(outside), small);
  Tressel::RelativeBelowsBox{2.0}.compute(view(b), view(outside), small);
  EXPECT_EQ(h, (std::vector<float>{0, 1, 0}));
  EXPECT_EQ(b, (std::vector<unsigned char>{0, 127, 255}));
}

TEST(RelativeMeasures, ClassFormsSkipTheirPoints) {
  const auto xyz = makeFragment(false, 1200, 9);
  std::vector<unsigned char> classes(xyz.size());
  for (std::size_t i = 0; i < xyz.size(); ++i)
    classes[i] = static_cast<unsigned char>(i % 6);

  // Belows: class 4 keeps its byte, the others count every point, class 4 included.
  std::vector<unsigned char> b(xyz.size(), 77);
  Tressel::RelativeBelowsBox{1.5}.compute(view(b), view(xyz), view(classes), boxOf(xyz));
  const auto all = bruteBelows(xyz, 1.5);
  for (std::size_t i = 0; i < xyz.size(); ++i)
    EXPECT_EQ(b[i], classes[i] == 4 ? 77 : all[i]) << i;

  // Heights: only classes 2 and 5 take part, among themselves.
  const MultiRange<double> ground("2,5");
  auto in = [&](std::size_t j) { return classes[j] == 2 || classes[j] == 5; };
  std::vector<float> h(xyz.size(), -1.0f);
  Tressel::RelativeHeightBox{1.5}.compute(view(h), view(xyz), view(classes), ground, boxOf(xyz));
  EXPECT_EQ(h, bruteHeights(xyz, 1.5, in));
  EXPECT_NE(h, bruteHeights(xyz, 1.5)); // the class filter matters on this cloud
}

// Hundreds of copies of a few positions (one of them twice with another height, one a hair
// apart), shuffled among spread points so that copies are neither neighbours in the input nor
// alone in their cells: each copy answers as its first does, as brute force says.
TEST(RelativeMeasures, CopiesOfPositionsAnswerAsBruteForceWithTheClassForms) {
  std::vector<point> xyz = makeFragment(false, 600, 21);
  const point a = xyz[10], b{xyz[20].x, xyz[20].y, xyz[20].z + 1.0};
  for (int k = 0; k < 900; ++k) {
    xyz.push_back(a);
    xyz.push_back(k % 3 == 0 ? b : xyz[20]);
    if (k % 4 == 0)
      xyz.push_back({a.x + 1e-9, a.y, a.z - 0.5});
  }
  std::shuffle(xyz.begin(), xyz.end(), std::mt19937(3));
  std::vector<unsigned char> classes(xyz.size());
  for (std::size_t i = 0; i < xyz.size(); ++i)
    classes[i] = static_cast<unsigned char>(i % 6);
  for (double halfWidth : {0.05, 2.0}) {
    EXPECT_EQ(heights(xyz, halfWidth), bruteHeights(xyz, halfWidth)) << halfWidth;
    EXPECT_EQ(belows(xyz, halfWidth), bruteBelows(xyz, halfWidth)) << halfWidth;
  }
  // A copy whose class asks nothing neither answers nor lends its position's answer.
  std::vector<unsigned char> below(xyz.size(), 77);
  Tressel::RelativeBelowsBox{2.0}.compute(view(below), view(xyz), view(classes), boxOf(xyz));
  const auto all = bruteBelows(xyz, 2.0);
  for (std::size_t i = 0; i < xyz.size(); ++i)
    ASSERT_EQ(below[i], classes[i] == 4 ? 77 : all[i]) << i;
  auto in = [&](std::size_t j) { return classes[j] == 2 || classes[j] == 5; };
  std::vector<float> h(xyz.size(), -1.0f);
  Tressel::RelativeHeightBox{2.0}.compute(view(h), view(xyz), view(classes),
                                          MultiRange<double>("2,5"), boxOf(xyz));
  EXPECT_EQ(h, bruteHeights(xyz, 2.0, in));
}

TEST(RelativeMeasures, ResultsDoNotDependOnThreads) {
  // One fragment of many more points than a chunk, so that its points spread over the threads.
  // The runtime's count is raised so that 7 is not corrected down on a small machine.
  const auto xyz = makeFragment(true, 20000, 13);
  const int saved = omp_get_max_threads();
  omp_set_num_threads(8);
  const auto h1 = heights(xyz, 1.0, 1);
  const auto b1 = belows(xyz, 1.0, 1);
  for (int threads : {2, 3, 7}) {
    EXPECT_EQ(heights(xyz, 1.0, threads), h1) << threads;
    EXPECT_EQ(belows(xyz, 1.0, threads), b1) << threads;
  }
  omp_set_num_threads(saved);
}

// The driver on one fragment: its two measures side by side or one after the other, their points
// over one, two or seven threads, always the same arrays.
TEST(RelativeMeasures, OneFragmentOfACloudGivesTheSameFieldsOnAnyThreads) {
  const auto xyz = makeFragment(false, 20000, 21);
  const auto partition = Tressel::tilePartition(xyz, 1000.0);
  ASSERT_EQ(partition.size(), 1u);
  const auto run = [&](int threads) {
    auto grid = Tressel::PointCloudBuilder(xyz).build(partition);
    const int saved = omp_get_max_threads();
    omp_set_num_threads(threads + 1); // the library keeps one back
    EXPECT_EQ(Quorvel::relativeHeightAndBelows(grid, 1.0, nullptr), "");
    omp_set_num_threads(saved);
    const auto& chart = Tressel::StandardCartesianChart3D;
    return std::pair(
        Tressel::readField<float>(*(*grid)(chart, "RelativeHeight"), partition),
        Tressel::readField<unsigned char>(*(*grid)(chart, "RelativeBelows"), partition));
  };
  const auto one = run(1);
  for (int threads : {2, 7})
    EXPECT_EQ(run(threads), one) << threads;
}

} // namespace
