// SPDX-License-Identifier: BSD-3-Clause
// Tests of the plane, distance, statistics and kernel functions against closed forms.
#include "quorvel/geometry/geometry.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::vector;

// Points exactly on z = 2x - y + 5 around (x0, y0).
std::vector<point> onPlane(double x0, double y0, std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> u(-20.0, 20.0);
  std::vector<point> out;
  for (std::size_t i = 0; i < n; ++i) {
    const double x = x0 + u(random), y = y0 + u(random);
    out.push_back({x, y, 2 * x - y + 5});
  }
  return out;
}

// The slopes are exact; c is the height at x = y = 0, an extrapolation over ~1e6 units from
// georeferenced data, so it carries the slopes' rounding times that distance.
void expectPlane(const vector& plane, double a, double b, double c) {
  EXPECT_NEAR(plane.x, a, 1e-10);
  EXPECT_NEAR(plane.y, b, 1e-10);
  EXPECT_NEAR(plane.z, c, 1e-4);
}

TEST(PlanarRegression, ExactPlanesAlsoAtGeoreferencedCoordinates) {
  for (double origin : {0.0, 1e6}) {
    const auto points = onPlane(origin, origin + 5e5, 50, 1);
    vector plane;
    ASSERT_TRUE(planarRegression(points, plane));
    expectPlane(plane, 2, -1, 5);
    for (const point& p : points) // near the data the plane is exact
      EXPECT_NEAR(getHeightFromPlane(plane, p.x, p.y), p.z, 1e-8);
  }
  // Noise that is symmetric about the plane leaves it unchanged.
  std::vector<point> pairs;
  for (const point& p : onPlane(3e5, 5.1e6, 30, 2)) {
    pairs.push_back({p.x, p.y, p.z + 0.3});
    pairs.push_back({p.x, p.y, p.z - 0.3});
  }
  vector plane;
  ASSERT_TRUE(planarRegression(pairs, plane));
  expectPlane(plane, 2, -1, 5);
}

TEST(PlanarRegression, DegenerateInputsFailInEveryForm) {
  vector plane(7, 7, 7);
  const std::vector<point> two = {{0, 0, 0}, {1, 1, 1}};
  const std::vector<point> collinear = {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {3, 3, 5}};
  const std::vector<point> vertical = {{4, 4, 0}, {4, 4, 1}, {4, 4, 2}};
  EXPECT_FALSE(planarRegression(two, plane));
  EXPECT_FALSE(planarRegression(collinear, plane));
  EXPECT_FALSE(planarRegression(vertical, plane));
  EXPECT_FALSE(planarRegression(two, plane, 0u));
  std::vector<double> distances;
  EXPECT_FALSE(getDistancesToRegressionPlane(two, distances, plane));
  EXPECT_FALSE(getDistancesToRegressionPlane(collinear, distances, plane));
  Tressel::MemArray<1, point> array(Tressel::MultiIndex<1>(2), two);
  EXPECT_FALSE(planarRegression(std::vector<unsigned long long>{0, 1}, array.view(), plane));
  EXPECT_EQ(plane, vector(7, 7, 7)); // left as it was
}

TEST(PlanarRegression, PercentFormDropsTheLowestPoints) {
  // Ten points on the plane, with the lowest `outliers` of them pushed far down.
  auto withOutliers = [](std::size_t n, std::size_t outliers) {
    auto points = onPlane(1e6, 2e6, n, 4);
    for (std::size_t i = 0; i < outliers; ++i)
      points[3 * i + 1].z -= 1000.0 + static_cast<double>(i);
    return points;
  };
  vector plane;
  ASSERT_TRUE(planarRegression(withOutliers(10, 1), plane, 5u)); // 0.5 truncated, raised to 1
  expectPlane(plane, 2, -1, 5);
  ASSERT_TRUE(planarRegression(withOutliers(10, 1), plane, 0u)); // nothing dropped
  EXPECT_GT(std::fabs(plane.z - 5), 1.0);
  ASSERT_TRUE(planarRegression(withOutliers(20, 2), plane, 10u)); // k = 2
  expectPlane(plane, 2, -1, 5);
  ASSERT_TRUE(planarRegression(withOutliers(20, 2), plane, 5u)); // k = 1: one outlier left
  EXPECT_GT(std::fabs(plane.z - 5), 1.0);
  EXPECT_FALSE(planarRegression(onPlane(0, 0, 4, 5), plane, 50u)); // 2 points left
  EXPECT_TRUE(planarRegression(onPlane(0, 0, 4, 5), plane, 25u));  // k = 1, 3 left
  EXPECT_FALSE(planarRegression(onPlane(0, 0, 4, 5), plane, 200u));
}

TEST(PlanarRegression, IndexedFormReadsThroughStridedViews) {
  const auto points = onPlane(1e6, 1e6, 40, 6);
  Tressel::MemArray<1, point> array(Tressel::MultiIndex<1>(40), points);
  const auto everySecond = array.view().every(0, 2); // an offset-free view with stride 2
  const std::vector<unsigned long long> indices = {3, 0, 7, 12, 19};
  vector plane;
  ASSERT_TRUE(planarRegression(indices, everySecond, plane));
  expectPlane(plane, 2, -1, 5);
  vector direct;
  std::vector<point> chosen;
  for (auto i : indices)
    chosen.push_back(points[2 * i]);
  ASSERT_TRUE(planarRegression(chosen, direct));
  EXPECT_EQ(plane, direct); // same origin, same order, same sums
}

TEST(PlaneFunctions, DistancesNormalsAndHeights) {
  const vector plane(1, 0, 0); // z = x
  EXPECT_DOUBLE_EQ(computeDistanceOfPointFromPlane(plane, point{0, 0, 1}), 1 / std::sqrt(2.0));
  EXPECT_DOUBLE_EQ(computeDistanceOfPointFromPlane(plane, point{2, 5, 1}), -1 / std::sqrt(2.0));
  EXPECT_DOUBLE_EQ(computeDistanceOfPointFromPlane(vector(0, 0, 3), point{9, 9, 7.5}), 4.5);
  EXPECT_EQ(getNormalVectorOfPlane(vector(2, -1, 5)), vector(2, -1, -1));
  EXPECT_DOUBLE_EQ(getHeightFromPlane(vector(2, -1, 5), 3, 4), 7);
  EXPECT_FLOAT_EQ(computeHeight(vector(0, 0, 9999999.0), point{0, 0, 10000000.5}), 1.5f);
  EXPECT_EQ(computeHeight(vector(0, 0, 1e7), point{0, 0, 3}), -1000.0f);

  std::vector<double> distances;
  vector fitted;
  auto points = onPlane(0, 0, 10, 8);
  points.push_back({0, 0, 5 + 0.0});
  ASSERT_TRUE(getDistancesToRegressionPlane(points, distances, fitted));
  ASSERT_EQ(distances.size(), points.size());
  for (double d : distances)
    EXPECT_NEAR(d, 0.0, 1e-9);

  EXPECT_TRUE(sortPoint(point{9, 9, 1}, point{0, 0, 2}));
  EXPECT_FALSE(sortPoint(point{0, 0, 2}, point{9, 9, 1}));
  EXPECT_FALSE(sortPoint(point{0, 0, 2}, point{1, 1, 2}));
}

TEST(WeightedStatistics, MeanAndItsFailure) {
  const std::vector<point> points = {{0, 0, 0}, {4, 0, 0}, {0, 8, 2}};
  point mean;
  ASSERT_TRUE(weightedMean(mean, points, {1, 1, 2}));
  EXPECT_EQ(mean, (point{1, 4, 1}));
  ASSERT_TRUE(weightedMean(mean, {point{3, 2, 1}}, {}));
  EXPECT_EQ(mean, (point{3, 2, 1}));

  point untouched{7, 7, 7};
  CaptureStdout();
  EXPECT_FALSE(weightedMean(untouched, points, {1, -1, 0}));
  EXPECT_EQ(GetCapturedStdout(), "weightedMean(): std::fabs(weightSum) < 1.0e-6\n");
  EXPECT_EQ(untouched, (point{7, 7, 7}));
  EXPECT_FALSE(weightedMean(untouched, points, {1, 1})); // fewer weights than points
}

TEST(WeightedStatistics, MedianConvergesToAFixedPointNearTheBulk) {
  std::vector<point> points = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0.5, 0.5, 0}};
  points.push_back({40, 40, 0}); // an outlier drags the mean, hardly the median
  const std::vector<double> weights(points.size(), 1.0);
  point mean, median;
  ASSERT_TRUE(weightedMean(mean, points, weights));
  ASSERT_TRUE(weightedMedian(median, points, weights, 1e-9));
  EXPECT_NEAR(median.x, 0.5, 1e-6);
  EXPECT_NEAR(median.y, 0.5, 1e-6);
  EXPECT_GT(mean.x, 7.0);
  // A converged estimate is a fixed point of the re-weighting step.
  double fSum = 0;
  vector sum;
  for (const point& p : points) {
    const double f = std::exp(-(median - p).length());
    fSum += f;
    sum = sum + (p - point()) * f;
  }
  const point step = point() + sum * (1 / fSum);
  EXPECT_LE((step - median).length(), 1e-8);

  point coarse;
  ASSERT_TRUE(weightedMedian(coarse, points, weights, 1.0)); // no refinement at tolerance 1
  EXPECT_EQ(coarse, mean);
  CaptureStdout();
  EXPECT_FALSE(weightedMedian(coarse, points, std::vector<double>(points.size(), 0.0), 0.1));
  GetCapturedStdout();
}

TEST(SphCubic, ValuesAroundTheKnots) {
  EXPECT_DOUBLE_EQ(sphCubic(0.0, 1.0), 1.0);
  EXPECT_DOUBLE_EQ(sphCubic(0.5, 1.0), 0.25);                           // q = 1
  EXPECT_NEAR(sphCubic(0.5 - 1e-9, 1.0), 0.25, 1e-8);                   // q -> 1 from below
  EXPECT_DOUBLE_EQ(sphCubic(0.25, 1.0), 1 - 1.5 * 0.25 + 0.75 * 0.125); // q = 0.5
  EXPECT_DOUBLE_EQ(sphCubic(0.75, 1.0), 0.25 * 0.125);                  // q = 1.5
  EXPECT_EQ(sphCubic(1.0, 1.0), 0.0);                                   // q = 2
  EXPECT_EQ(sphCubic(3.0, 1.0), 0.0);
  EXPECT_EQ(sphCubic(-0.1, 1.0), 0.0);
  EXPECT_DOUBLE_EQ(sphCubic(1.0, 4.0), sphCubic(0.25)); // q = 2 r / h
  EXPECT_EQ(sphCubic(0.3), sphCubic(0.3, 1.0));
  EXPECT_EQ(sphCubic(0.0, 0.0), 0.0); // q undefined: no support
}

TEST(UnsortedEigenVectors, RandomSymmetricMatrices) {
  std::mt19937 random(9);
  std::uniform_real_distribution<double> u(-5.0, 5.0);
  for (int trial = 0; trial < 200; ++trial) {
    Vantor::LowerTriangular<3, double> a;
    for (double& v : a.values)
      v = u(random);
    if (trial % 10 == 0)
      a(1, 0) = a(2, 1) = 0; // partly diagonal
    const auto original = a;
    Vantor::Quadratic<3, double> V;
    Vantor::Row<3, double> values;
    Vantor::UnsortedEigenVectors<3, double>(a, V, values, 1e-10);
    for (int k = 0; k < 3; ++k) {
      for (int i = 0; i < 3; ++i) {
        double av = 0;
        for (int j = 0; j < 3; ++j)
          av += original(i, j) * V(j, k);
        EXPECT_NEAR(av, values[k] * V(i, k), 1e-8) << "trial " << trial;
      }
      for (int l = 0; l < 3; ++l) {
        double dot = 0;
        for (int i = 0; i < 3; ++i)
          dot += V(i, k) * V(i, l);
        EXPECT_NEAR(dot, k == l ? 1.0 : 0.0, 1e-12);
      }
    }
    EXPECT_NEAR(values[0] + values[1] + values[2], original(0, 0) + original(1, 1) + original(2, 2),
                1e-9);
  }
}

TEST(UnsortedEigenVectors, DiagonalAndZeroMatricesAreNotRotated) {
  Vantor::LowerTriangular<3, double> diagonal;
  diagonal(0, 0) = 3;
  diagonal(1, 1) = -1;
  diagonal(2, 2) = 2;
  Vantor::Quadratic<3, double> V;
  Vantor::Row<3, double> values;
  Vantor::UnsortedEigenVectors<3, double>(diagonal, V, values, 1e-10);
  EXPECT_EQ(values[0], 3);
  EXPECT_EQ(values[1], -1);
  EXPECT_EQ(values[2], 2);
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      EXPECT_EQ(V(i, j), i == j ? 1.0 : 0.0);

  Vantor::LowerTriangular<3, double> zero;
  Vantor::UnsortedEigenVectors<3, double>(zero, V, values, 1e-10);
  EXPECT_EQ(values[0], 0);
  EXPECT_EQ(V(0, 0), 1);
  EXPECT_EQ(V(1, 0), 0);

  Vantor::LowerTriangular<3, double> broken;
  broken(1, 0) = std::nan("");
  Vantor::UnsortedEigenVectors<3, double>(broken, V, values, 1e-10); // ends, no rotation
  EXPECT_EQ(V(2, 2), 1);
}

TEST(ComputeNeighboursParameterBox, DifferentAndPrint) {
  ComputeNeighboursParameterBox a, b;
  EXPECT_FALSE(a.different(b));
  b.radius = a.radius + 0.0009;
  EXPECT_FALSE(a.different(b));
  b.radius = a.radius + 0.0011;
  EXPECT_TRUE(a.different(b));
  b = a;
  b.mode = "knn";
  EXPECT_TRUE(a.different(b));
  b = a;
  b.stripwise = true;
  EXPECT_TRUE(a.different(b));

  b.radius = 2.5;
  b.mode = "radius";
  CaptureStdout();
  b.print();
  EXPECT_EQ(GetCapturedStdout(), "radius: 2.5\nmode: radius\nstripwise: 1\n");
}

} // namespace
