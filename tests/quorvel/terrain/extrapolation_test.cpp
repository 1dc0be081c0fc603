// SPDX-License-Identifier: BSD-3-Clause
// Tests of extrapolation against a brute-force computation of its own over several rounds (seeds
// found by scanning every point, planes solved about their centroid), in 2-D and 3-D, with the
// round snapshot, the stop rule, the messages and the box.
#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/terrain.hpp"
#include "support/brute_force.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <omp.h>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Box = ExtrapolationParameterBox;

// Signed distance of p from the least-squares plane z = a x + b y + c through the points, solved
// about their centroid with Cramer's rule on the centred normal equations.
double planeDistance(const std::vector<point>& pts, const point& p, bool& solved) {
  double cx = 0, cy = 0, cz = 0;
  for (const point& q : pts)
    cx += q.x, cy += q.y, cz += q.z;
  const double n = static_cast<double>(pts.size());
  cx /= n, cy /= n, cz /= n;
  double sxx = 0, sxy = 0, syy = 0, sxz = 0, syz = 0;
  for (const point& q : pts) {
    const double dx = q.x - cx, dy = q.y - cy, dz = q.z - cz;
    sxx += dx * dx, sxy += dx * dy, syy += dy * dy, sxz += dx * dz, syz += dy * dz;
  }
  const double det = sxx * syy - sxy * sxy;
  solved = std::fabs(det) > 1e-9;
  const double a = (sxz * syy - syz * sxy) / det, b = (sxx * syz - sxy * sxz) / det;
  const double c = cz - a * cx - b * cy;
  return (p.z - a * p.x - b * p.y - c) / std::sqrt(1 + a * a + b * b);
}

// The rounds as defined, by brute force; returns the classes.
std::vector<unsigned char> oracle(const std::vector<point>& xyz, std::vector<unsigned char> cls,
                                  const Box& box) {
  const int dims = box.dimension == "2D" ? 2 : 3;
  const std::size_t n = xyz.size();
  std::vector<bool> grown(n, false);
  for (int round = 0; round < box.maximum_iteration; ++round) {
    const std::vector<unsigned char> before = cls;
    std::vector<std::size_t> seeds;
    for (std::size_t i = 0; i < n; ++i)
      if (grown[i] || box.source.contains(before[i], 1e-9))
        seeds.push_back(i);
    if (seeds.empty())
      break;
    bool changed = false;
    for (std::size_t i = 0; i < n; ++i) {
      if (grown[i] || box.source.contains(before[i], 1e-9) || !box.target.contains(before[i], 1e-9))
        continue;
      const double squaredRadius = box.radius * box.radius;
      std::vector<point> near;
      for (const auto& [d2, j] : BruteForce::within(xyz, xyz[i], squaredRadius, dims, seeds))
        near.push_back(xyz[j]);
      const auto closest = BruteForce::nearest(xyz, xyz[i], squaredRadius, dims, seeds);
      const std::size_t nearest = closest ? closest->second : n;
      int c = before[i];
      if (box.mode == "constant" && !near.empty())
        c = box.extrapolation_class;
      else if (box.mode == "classification" && nearest < n)
        c = before[nearest];
      else if (box.mode == "threshold" && nearest < n &&
               std::fabs(xyz[i].z - xyz[nearest].z) <= box.threshold)
        c = box.extrapolation_class;
      else if (box.mode == "planarregression" && near.size() >= 3) {
        bool solved = false;
        const double d = planeDistance(near, xyz[i], solved);
        if (solved && box.range.contains(d, 1e-9))
          c = box.extrapolation_class;
      }
      if (c != before[i]) {
        cls[i] = static_cast<unsigned char>(c);
        grown[i] = true;
        changed = true;
      }
    }
    if (!changed)
      break;
  }
  return cls;
}

// Terrain with steps (houses 3 m high), scattered vegetation and a few ground seeds of class 2,
// two other seeds of classes 6 and 9; the rest unclassified (0) or never classified (1).
struct Scene {
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  explicit Scene(unsigned seed, std::size_t n = 1500) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (std::size_t i = 0; i < n; ++i) {
      const double x = 30 * u(random), y = 30 * u(random);
      double z = 100 + 0.05 * x + 0.02 * u(random);
      if (x > 18 && y > 18)
        z += 3; // a house
      if (u(random) < 0.1)
        z += 1 + 10 * u(random); // vegetation
      xyz.emplace_back(5e5 + x, 5.4e6 + y, z);
      cls.push_back(u(random) < 0.02 ? 2 : (u(random) < 0.1 ? 1 : 0));
    }
    cls[0] = 6;
    cls[1] = 9;
  }
  StrongPtr<Tressel::Grid> grid(std::size_t fragment = 0) const {
    Tressel::PointCloudBuilder b(xyz);
    b.addField("Classification", cls);
    return b.build(Tressel::sequentialPartition(xyz.size(), fragment));
  }
};

std::vector<unsigned char> classesOf(const StrongPtr<Tressel::Grid>& grid) {
  return Tressel::readField<unsigned char>(
      *(*grid)(Tressel::StandardCartesianChart3D, "Classification"));
}

TEST(Extrapolation, EveryModeMatchesTheOracleOverSeveralRoundsIn2DAnd3D) {
  struct Case {
    const char* mode;
    const char* dimension;
    double radius;
    int rounds;
    const char* source;
  };
  for (const Case& c :
       {Case{"constant", "2D", 0.8, 3, "2"}, Case{"constant", "3D", 1.2, 10, "2"},
        Case{"classification", "2D", 1.0, 4, "2,6,9"}, Case{"classification", "3D", 1.5, 10, "6,9"},
        Case{"threshold", "2D", 1.5, 10, "2"}, Case{"threshold", "3D", 2.0, 2, "2"},
        Case{"planarregression", "2D", 2.0, 10, "2"},
        Case{"planarregression", "3D", 2.5, 10, "2"}}) {
    const Scene scene(static_cast<unsigned>(c.rounds * 10 + c.radius * 4));
    Box box;
    box.mode = c.mode;
    box.dimension = c.dimension;
    box.radius = c.radius;
    box.maximum_iteration = c.rounds;
    box.source = Vantor::MultiRange<double>(c.source);
    box.extrapolation_class = 7;
    const auto grid = scene.grid();
    CaptureStdout();
    EXPECT_EQ(extrapolation(grid, box, nullptr), "");
    GetCapturedStdout();
    const auto got = classesOf(grid);
    const auto expected = oracle(scene.xyz, scene.cls, box);
    ASSERT_EQ(got, expected) << c.mode << " " << c.dimension;
    std::size_t changed = 0, untouched = 0;
    for (std::size_t i = 0; i < got.size(); ++i) {
      changed += got[i] != scene.cls[i];
      untouched += scene.cls[i] == 1 && got[i] == 1; // class 1 is outside the target
    }
    EXPECT_GT(changed, 10u) << c.mode;
    EXPECT_EQ(untouched,
              static_cast<std::size_t>(std::count(scene.cls.begin(), scene.cls.end(), 1)));
  }
}

TEST(Extrapolation, RoundsSeeTheirStartAndStopWhenNothingChanges) {
  // A line of points 1 m apart from a seed at 0: radius 1.5 grows one point per round.
  std::vector<point> xyz;
  std::vector<unsigned char> cls;
  for (int i = 0; i < 10; ++i) {
    xyz.emplace_back(i, 0, 0);
    cls.push_back(i == 0 ? 2 : 0);
  }
  Box box;
  box.mode = "constant";
  box.radius = 1.5;
  box.extrapolation_class = 2;
  for (int rounds : {0, 1, 4}) {
    box.maximum_iteration = rounds;
    auto classes = cls;
    auto view = Tressel::MultiArray<1, unsigned char>::dense(classes.data(), {classes.size()});
    const auto positions = Tressel::MultiArray<1, point>::dense(xyz.data(), {xyz.size()});
    const auto bbox = std::make_shared<Vantor::BoundingBox>(xyz.front(), xyz.back());
    EXPECT_EQ(detail::extrapolateFragment(positions, bbox, box, view), rounds);
    EXPECT_EQ(std::count(classes.begin(), classes.end(), 2), rounds + 1);
  }
  box.maximum_iteration = 100;
  auto classes = cls;
  auto view = Tressel::MultiArray<1, unsigned char>::dense(classes.data(), {classes.size()});
  const auto positions = Tressel::MultiArray<1, point>::dense(xyz.data(), {xyz.size()});
  const auto bbox = std::make_shared<Vantor::BoundingBox>(xyz.front(), xyz.back());
  EXPECT_EQ(detail::extrapolateFragment(positions, bbox, box, view), 10); // 9 growing, 1 idle
  // Classification: ties go to the lower index; the seeds' classes as at the round's start.
  std::vector<point> tie{{0, 0, 0}, {2, 0, 0}, {1, 0, 0}};
  std::vector<unsigned char> tied{5, 4, 0};
  box.mode = "classification";
  box.source = Vantor::MultiRange<double>("4:5");
  auto tv = Tressel::MultiArray<1, unsigned char>::dense(tied.data(), {3});
  detail::extrapolateFragment(Tressel::MultiArray<1, point>::dense(tie.data(), {3}),
                              std::make_shared<Vantor::BoundingBox>(tie[0], tie[1]), box, tv);
  EXPECT_EQ(tied[2], 5);
}

TEST(Extrapolation, MessagesBoxAndThreads) {
  const Scene scene(3);
  Box unknown;
  unknown.mode = "grow";
  CaptureStdout();
  EXPECT_EQ(extrapolation(scene.grid(), unknown, nullptr), "ERROR: unknown mode grow");
  EXPECT_EQ(GetCapturedStdout(), "Extrapolation: ERROR: unknown mode grow\n");
  const auto bare = Tressel::PointCloudBuilder(scene.xyz).build(
      Tressel::sequentialPartition(scene.xyz.size(), 0));
  Box none;
  CaptureStdout();
  EXPECT_EQ(extrapolation(bare, none, nullptr), "ERROR: no f_classification");
  EXPECT_EQ(GetCapturedStdout(), "Extrapolation: ERROR: no f_classification\n");
  CaptureStdout();
  Box().print();
  EXPECT_EQ(GetCapturedStdout(),
            "mode: planarregression\nextrapolation_class: 2\nsource: 2.000000:2.000000\n"
            "target: 0.000000:0.000000\nradius: 1\nmaximum_iteration: 10\ndimension: 3D\n"
            "range: -0.200000:0.200000\nquantile: 0\nthreshold: 0.2\n");

  const int before = omp_get_max_threads();
  std::vector<std::vector<unsigned char>> results;
  for (int threads : {1, 2, 5}) {
    omp_set_num_threads(threads);
    const auto grid = scene.grid(400);
    Box box;
    box.radius = 2;
    CaptureStdout();
    extrapolation(grid, box, nullptr);
    GetCapturedStdout();
    results.push_back(classesOf(grid));
  }
  omp_set_num_threads(before);
  EXPECT_EQ(results[0], results[1]);
  EXPECT_EQ(results[0], results[2]);
}

} // namespace
