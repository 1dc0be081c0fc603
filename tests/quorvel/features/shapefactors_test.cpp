// SPDX-License-Identifier: BSD-3-Clause
// Tests of shape factors against an oracle of their own: brute-force neighbour lists sorted by
// squared distance, moments summed directly and eigenvalues from the closed form of symmetric
// 3 x 3 matrices; then the filters, the box and the messages.
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "support/brute_force.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <numbers>
#include <omp.h>
#include <random>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Box = ShapeFactorComputationParameterBox;
using Vantor::PhysicalSpace::point;
using Vec = Vantor::PhysicalSpace::vector;

// ---- The oracle ----------------------------------------------------------------------------

struct Expected {
  double planarity = 0, linearity = 0, sphericity = 0;
  Vec normal{0, 0, 0};
};

using Matrix = std::array<std::array<double, 3>, 3>;

// Eigenvalues ascending by the trigonometric closed form.
std::array<double, 3> eigenvalues(const Matrix& a) {
  const double p1 = a[0][1] * a[0][1] + a[0][2] * a[0][2] + a[1][2] * a[1][2];
  const double q = (a[0][0] + a[1][1] + a[2][2]) / 3;
  const double p2 = (a[0][0] - q) * (a[0][0] - q) + (a[1][1] - q) * (a[1][1] - q) +
                    (a[2][2] - q) * (a[2][2] - q) + 2 * p1;
  if (p2 <= 0)
    return {q, q, q};
  const double p = std::sqrt(p2 / 6);
  Matrix b;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j)
      b[i][j] = (a[i][j] - (i == j ? q : 0)) / p;
  const double det = b[0][0] * (b[1][1] * b[2][2] - b[1][2] * b[2][1]) -
                     b[0][1] * (b[1][0] * b[2][2] - b[1][2] * b[2][0]) +
                     b[0][2] * (b[1][0] * b[2][1] - b[1][1] * b[2][0]);
  const double phi = std::acos(std::clamp(det / 2, -1.0, 1.0)) / 3;
  const double largest = q + 2 * p * std::cos(phi);
  const double smallest = q + 2 * p * std::cos(phi + 2 * std::numbers::pi / 3);
  return {smallest, 3 * q - largest - smallest, largest};
}

// Unit eigenvector of eigenvalue l: the longest cross product of two rows of a - l I.
Vec eigenvector(const Matrix& a, double l) {
  Vec rows[3];
  for (int i = 0; i < 3; ++i)
    rows[i] =
        Vec(a[i][0] - (i == 0 ? l : 0), a[i][1] - (i == 1 ? l : 0), a[i][2] - (i == 2 ? l : 0));
  const auto cross = [](const Vec& u, const Vec& v) {
    return Vec(u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x);
  };
  Vec best(0, 0, 0);
  double longest = 0;
  for (const Vec& c : {cross(rows[0], rows[1]), cross(rows[0], rows[2]), cross(rows[1], rows[2])})
    if (const double n = c.x * c.x + c.y * c.y + c.z * c.z; n > longest)
      longest = n, best = c;
  const double length = std::sqrt(longest);
  best = Vec(best.x / length, best.y / length, best.z / length);
  return best.z < 0 ? -best : best;
}

// The shape of point i among the selected points, as the rules say, by brute force.
Expected oracle(const std::vector<point>& xyz, const std::vector<bool>& selected, std::size_t i,
                unsigned maxstep, double step, int dimension) {
  Expected e;
  if (maxstep == 0) {
    e.planarity = -1;
    return e;
  }
  const double r = maxstep * step;
  const auto list = BruteForce::sortedWithin(
      xyz, xyz[i], r * r, dimension, BruteForce::indicesWhere(xyz.size(), [&](std::size_t j) {
        return static_cast<bool>(selected[j]);
      }));
  double best = -1;
  std::array<double, 3> kept{0, 0, 0};
  Matrix keptMatrix{};
  for (unsigned k = 1; k <= maxstep; ++k) {
    std::size_t count = 0;
    for (const auto& entry : list)
      count += entry.first <= k * step ? 1 : 0;
    Matrix m{};
    std::size_t used = 0;
    for (std::size_t w = 0; w < list.size() && used < count; ++w) {
      if (list[w].first < 0.0001)
        continue;
      const point& q = xyz[list[w].second];
      const double d[3] = {q.x - xyz[i].x, q.y - xyz[i].y, q.z - xyz[i].z};
      for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b)
          m[a][b] += d[a] * d[b];
      ++used;
    }
    for (auto& row : m)
      for (double& v : row)
        v = used > 0 ? v / static_cast<double>(used) : 0.0;
    const auto l = eigenvalues(m);
    const double s = l[0] + l[1] + l[2];
    const double planarity = std::fabs(s) >= 1e-6 ? 2 * (l[1] - l[0]) / s : 0.0;
    if (planarity > best)
      best = planarity, kept = l, keptMatrix = m;
  }
  const double s = kept[0] + kept[1] + kept[2];
  e.planarity = best;
  e.linearity = std::fabs(s) >= 1e-6 ? (kept[2] - kept[1]) / s : 0.0;
  e.sphericity = std::fabs(s) >= 1e-6 ? 3 * kept[0] / s : 0.0;
  // Normals are compared only where the smallest eigenvalue stands clearly apart.
  if (kept[1] - kept[0] > 1e-3 * (std::fabs(s) + 1e-300))
    e.normal = eigenvector(keptMatrix, kept[0]);
  return e;
}

// ---- Clouds --------------------------------------------------------------------------------

// A rough surface, a dense clump with near-duplicates and a few far, lonely points.
std::vector<point> mixedCloud(unsigned seed, std::size_t n = 900) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> u(0.0, 1.0);
  std::vector<point> xyz;
  for (std::size_t i = 0; i < n; ++i) {
    const double x = 10 * u(random), y = 10 * u(random);
    xyz.emplace_back(1000 + x, 2000 + y, 50 + 0.3 * std::sin(x) + 0.05 * u(random));
  }
  for (int i = 0; i < 40; ++i) {
    xyz.emplace_back(1003 + 0.4 * u(random), 2003 + 0.4 * u(random), 50.5 + 0.4 * u(random));
    xyz.push_back(xyz.back() + Vec(0.003 * u(random), 0.003 * u(random), 0.003 * u(random)));
  }
  xyz.emplace_back(1030, 2030, 80);
  xyz.emplace_back(1030.005, 2030, 80);
  return xyz;
}

StrongPtr<Tressel::Grid> cloudOf(const std::vector<point>& xyz, std::size_t fragmentSize = 0) {
  return Tressel::PointCloudBuilder(xyz).build(
      Tressel::sequentialPartition(xyz.size(), fragmentSize));
}

template <class T>
std::vector<T> values(const StrongPtr<Tressel::Grid>& grid, const std::string& name) {
  return Tressel::readField<T>(*(*grid)(Tressel::StandardCartesianChart3D, name));
}

std::string run(const StrongPtr<Tressel::Grid>& grid, Box& box) {
  CaptureStdout();
  const std::string result = shapeFactorComputation(grid, box, nullptr);
  const std::string out = GetCapturedStdout();
  EXPECT_EQ(result, box.message);
  return out;
}

Box everything(unsigned maxstep, double step, int dimension) {
  Box box;
  box.maxstep = maxstep;
  box.step = step;
  box.dimension = dimension;
  box.normalvector = box.linearity = box.sphericity = true;
  return box;
}

void expectOracle(const std::vector<point>& xyz, const std::vector<bool>& selected,
                  const StrongPtr<Tressel::Grid>& grid, const Box& box) {
  const auto planarity = values<float>(grid, "Planarity");
  const auto linearity = values<float>(grid, "Linearity");
  const auto sphericity = values<float>(grid, "Sphericity");
  const auto normals = values<Vec>(grid, "NormalVector");
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    if (!selected[i]) {
      EXPECT_EQ(planarity[i], 0.0f) << i;
      EXPECT_EQ(normals[i], Vec(0, 0, 0)) << i;
      continue;
    }
    const Expected e = oracle(xyz, selected, i, box.maxstep, box.step, box.dimension);
    ASSERT_NEAR(planarity[i], e.planarity, 2e-5) << "point " << i;
    EXPECT_NEAR(linearity[i], e.linearity, 2e-5) << "point " << i;
    EXPECT_NEAR(sphericity[i], e.sphericity, 2e-5) << "point " << i;
    EXPECT_GE(normals[i].z, 0.0) << i;
    if (e.normal != Vec(0, 0, 0)) {
      EXPECT_NEAR(normals[i].x, e.normal.x, 1e-5) << i;
      EXPECT_NEAR(normals[i].y, e.normal.y, 1e-5) << i;
      EXPECT_NEAR(normals[i].z, e.normal.z, 1e-5) << i;
    }
  }
}

// ---- Tests ---------------------------------------------------------------------------------

TEST(ShapeFactors, MatchTheOracleAtSeveralScalesIn2DAnd3D) {
  for (const auto& [maxstep, step, dimension] :
       {std::tuple{4u, 0.25, 3}, {4u, 0.5, 3}, {6u, 0.1, 2}, {1u, 1.0, 3}}) {
    const auto xyz = mixedCloud(maxstep + dimension);
    const auto grid = cloudOf(xyz, 400); // several fragments: no point sees another fragment
    Box box = everything(maxstep, step, dimension);
    run(grid, box);
    EXPECT_EQ(box.message, "");
    for (std::size_t begin = 0; begin < xyz.size(); begin += 400) {
      const std::size_t end = std::min(xyz.size(), begin + 400);
      std::vector<point> part(xyz.begin() + begin, xyz.begin() + end);
      const auto one = cloudOf(part);
      Box again = box;
      run(one, again);
      const auto a = values<float>(grid, "Planarity");
      const auto b = values<float>(one, "Planarity");
      for (std::size_t i = 0; i < part.size(); ++i)
        ASSERT_EQ(a[begin + i], b[i]);
    }
    const auto whole = cloudOf(xyz);
    run(whole, box);
    expectOracle(xyz, std::vector<bool>(xyz.size(), true), whole, box);
  }
}

// Hundreds of copies of surface points, shuffled in: copies of one x-y position at three heights
// share their neighbours in 2-D but not their shape, and copies of a point take every query of
// their neighbours (a leaf that cannot split). Each copy's shape is what brute force gives.
TEST(ShapeFactors, CopiesOfPositionsMatchTheOracleIn2DAnd3D) {
  auto xyz = mixedCloud(7, 500);
  const point a = xyz[5], b = xyz[9];
  for (int k = 0; k < 700; ++k) {
    xyz.push_back(a);
    if (k % 2 == 0)
      xyz.emplace_back(b.x, b.y, b.z + 0.3 * (k % 3));
  }
  std::shuffle(xyz.begin(), xyz.end(), std::mt19937(11));
  for (int dimension : {3, 2}) {
    const auto grid = cloudOf(xyz);
    Box box = everything(3, 0.5, dimension);
    run(grid, box);
    EXPECT_EQ(box.message, "");
    expectOracle(xyz, std::vector<bool>(xyz.size(), true), grid, box);
  }
}

TEST(ShapeFactors, EdgeRulesZeroScalesLonelyPointsAndTies) {
  // maxstep 0: planarity -1 and zeros; a lonely point (only a duplicate closer than 0.01): zeros
  // with the solver's first axis as normal; a flat grid: every scale is equally planar and the
  // smallest one wins, whose eigenvalues give the linearity.
  std::vector<point> xyz{{0, 0, 0}, {0.005, 0, 0}, {50, 50, 0}};
  for (int x = 0; x < 5; ++x)
    for (int y = 0; y < 5; ++y)
      xyz.emplace_back(10 + 0.3 * x, 10 + 0.3 * y, 5);
  auto grid = cloudOf(xyz);
  Box zero = everything(0, 0.25, 3);
  run(grid, zero);
  for (float p : values<float>(grid, "Planarity"))
    EXPECT_EQ(p, -1.0f);
  for (const Vec& v : values<Vec>(grid, "NormalVector"))
    EXPECT_EQ(v, Vec(0, 0, 0));
  for (float l : values<float>(grid, "Linearity"))
    EXPECT_EQ(l, 0.0f);

  Box box = everything(4, 0.25, 3);
  run(grid, box);
  const auto planarity = values<float>(grid, "Planarity");
  const auto normals = values<Vec>(grid, "NormalVector");
  EXPECT_EQ(planarity[0], 0.0f);
  EXPECT_EQ(planarity[2], 0.0f);
  EXPECT_EQ(normals[2], Vec(1, 0, 0));
  EXPECT_EQ(values<float>(grid, "Sphericity")[2], 0.0f);
  const std::vector<bool> all(xyz.size(), true);
  for (std::size_t i = 3; i < xyz.size(); ++i) {
    EXPECT_NEAR(normals[i].z, 1.0, 1e-9);
    const Expected e = oracle(xyz, all, i, 4, 0.25, 3);
    EXPECT_NEAR(planarity[i], e.planarity, 1e-6);
    EXPECT_NEAR(values<float>(grid, "Linearity")[i], e.linearity, 1e-6) << i;
  }
}

TEST(ShapeFactors, NearDuplicatesExtendTheWalkPastTheScale) {
  // Step 0.5, two scales. Around the origin: a near-duplicate and two points along x within
  // scale 1 (squared distance <= 0.5); two more points of the plane z = 0 and one above it within
  // scale 2 only. Scale 1 counts 4 (itself, the duplicate and the two), skips 2 and so takes the
  // moments of the first 4 others: the plane's four points. Without the overrun scale 1 would be
  // a line and the best scale the less planar scale 2.
  const std::vector<point> xyz{{0, 0, 0},   {0.001, 0, 0}, {0.3, 0, 0}, {0.45, 0, 0},
                               {0, 0.8, 0}, {0.6, 0.6, 0}, {0, 0, 0.9}};
  const auto grid = cloudOf(xyz);
  Box box = everything(2, 0.5, 3);
  run(grid, box);
  // The moments in the plane, (1/4) [[0.6525, 0.36], [0.36, 1.0]], and their eigenvalues.
  const double a = 0.6525 / 4, b = 0.36 / 4, c = 1.0 / 4;
  const double r = std::sqrt((a - c) * (a - c) / 4 + b * b);
  const double l1 = (a + c) / 2 - r, l2 = (a + c) / 2 + r;
  EXPECT_NEAR(values<float>(grid, "Planarity")[0], 2 * l1 / (l1 + l2), 1e-6);
  EXPECT_NEAR(values<float>(grid, "Linearity")[0], (l2 - l1) / (l1 + l2), 1e-6);
  EXPECT_EQ(values<Vec>(grid, "NormalVector")[0], Vec(0, 0, 1));
  EXPECT_NEAR(oracle(xyz, std::vector<bool>(7, true), 0, 2, 0.5, 3).planarity, 2 * l1 / (l1 + l2),
              1e-12);
}

// A cloud with return and intensity fields.
struct Returns {
  std::vector<point> xyz = mixedCloud(11, 400);
  std::vector<unsigned char> rn, nr, last;
  std::vector<unsigned short> intensity, amplitude;
  Returns() {
    std::mt19937 random(3);
    for (std::size_t i = 0; i < xyz.size(); ++i) {
      nr.push_back(static_cast<unsigned char>(1 + random() % 3));
      rn.push_back(static_cast<unsigned char>(1 + random() % nr.back()));
      last.push_back(rn.back() == nr.back() ? 1 : 0);
      intensity.push_back(static_cast<unsigned short>(random() % 100));
      amplitude.push_back(static_cast<unsigned short>(random() % 100));
    }
  }
  StrongPtr<Tressel::Grid> grid(bool withLast, bool withAmplitude) const {
    Tressel::PointCloudBuilder b(xyz);
    b.addField("ReturnNumber", rn).addField("NumberOfReturns", nr).addField("Intensity", intensity);
    if (withLast)
      b.addField("LastReturn", last);
    if (withAmplitude)
      b.addField("Amplitude", amplitude);
    return b.build(Tressel::sequentialPartition(xyz.size(), 0));
  }
};

TEST(ShapeFactors, FiltersSelectPointsThatAloneAreNeighbours) {
  const Returns r;
  const std::size_t n = r.xyz.size();
  struct Case {
    bool withLast, withAmplitude, first, single, last;
    double threshold;
    std::function<bool(std::size_t)> selected;
  };
  const std::vector<Case> cases{
      // With "LastReturn": first returns alone select everything; last and single clear.
      {true, false, true, false, false, 0, [](std::size_t) { return true; }},
      {true, false, false, false, true, 0, [&](std::size_t i) { return r.last[i] == 1; }},
      {true, false, false, true, false, 0, [](std::size_t) { return false; }},
      // Without it: the union of the flags over return number and count.
      {false, false, true, false, true, 0,
       [&](std::size_t i) { return r.rn[i] == r.nr[i] || r.rn[i] < 2; }},
      {false, false, false, true, false, 0, [&](std::size_t i) { return r.nr[i] < 2; }},
      // Intensity: equal values stay; "Amplitude" wins over "Intensity".
      {false, false, false, false, false, 50, [&](std::size_t i) { return r.intensity[i] >= 50; }},
      {false, true, false, false, false, 50, [&](std::size_t i) { return r.amplitude[i] >= 50; }},
      {false, true, true, false, false, 30,
       [&](std::size_t i) { return r.rn[i] < 2 && r.amplitude[i] >= 30; }},
  };
  for (const Case& c : cases) {
    const auto grid = r.grid(c.withLast, c.withAmplitude);
    Box box = everything(3, 0.3, 3);
    box.use_only_firstreturns = c.first;
    box.use_only_singlereturns = c.single;
    box.use_only_lastreturns = c.last;
    box.intensity_threshold = c.threshold;
    run(grid, box);
    EXPECT_EQ(box.message, "");
    std::vector<bool> selected(n);
    for (std::size_t i = 0; i < n; ++i)
      selected[i] = c.selected(i);
    expectOracle(r.xyz, selected, grid, box);
  }
}

TEST(ShapeFactors, MissingAndMistypedInputsSayWhat) {
  const Returns r;
  Box box;
  box.chartname = "Elsewhere";
  EXPECT_EQ(run(r.grid(false, false), box),
            "ShapeFactorComputation: ERROR: no chart Elsewhere found\n");
  EXPECT_EQ(box.message, "ERROR: no chart Elsewhere found");

  const auto empty = std::make_shared<Tressel::Grid>("empty");
  empty->makeCartesianRepresentation(3, Tressel::StandardCartesianChart3D);
  Box none;
  EXPECT_EQ(run(empty, none), "ShapeFactorComputation: ERROR: no f_vertices\n");

  // Mistyped filter arrays skip the fragment: nothing is written for it.
  Tressel::PointCloudBuilder b(r.xyz);
  b.addField("LastReturn", std::vector<int>(r.xyz.size(), 1))
      .addField("Intensity", std::vector<float>(r.xyz.size(), 1));
  const auto wrong = b.build(Tressel::sequentialPartition(r.xyz.size(), 100));
  Box last;
  last.use_only_lastreturns = true;
  const std::string out = run(wrong, last);
  std::string expected;
  for (std::size_t k = 0; k < (r.xyz.size() + 99) / 100; ++k)
    expected += "ERROR: no m_lastreturn";
  EXPECT_EQ(last.message, expected);
  EXPECT_NE(out.find("ShapeFactorComputation: ERROR: no m_lastreturn\n"), std::string::npos);
  Box intensity;
  intensity.intensity_threshold = 1;
  run(wrong, intensity);
  EXPECT_EQ(intensity.message.find("ERROR: no m_intensity"), 0u);
  Box absent;
  absent.intensity_threshold = 1;
  run(cloudOf(r.xyz), absent);
  EXPECT_EQ(absent.message, "ERROR: no f_intensity");
  // Skipped fragments get no "Planarity" arrays.
  for (const FragmentSlot& slot :
       fragmentsOf(*(*wrong)(Tressel::StandardCartesianChart3D, "Planarity")))
    EXPECT_FALSE(slot.creator);
}

TEST(ShapeFactors, VerboseLinesBoxPrintAndProgress) {
  const std::vector<point> xyz{{0, 0, 0}, {1, 2, 4}};
  Box box;
  box.verbose = true;
  box.intensity_threshold = 0;
  box.use_only_lastreturns = true;
  const std::string out = run(cloudOf(xyz), box);
  EXPECT_EQ(out, "-0.050,-0.100,-0.200\n1.050,2.100,4.200\n"
                 "parameterbox.use_only_lastreturns or parameterbox.use_only_singlereturns\n"
                 "computePlanarity\nshapeFactorComputation: compute 1 / 1       \r");
  CaptureStdout();
  Box().print();
  EXPECT_EQ(GetCapturedStdout(),
            "maxstep: 4\nstep: 0.25\ndimension: 3\nuse first returns: 0\nuse single returns: 0\n"
            "use last returns: 0\nintensity threshold: 0\nverbose: 0\n"
            "chartname: StandardCartesianChart3D\nnormalvector: 0\nlinearity: 0\nsphericity: 0\n");
}

TEST(ShapeFactors, ResultsDoNotDependOnThreads) {
  const auto xyz = mixedCloud(5, 3000);
  std::vector<std::vector<float>> results;
  const int before = omp_get_max_threads();
  for (int threads : {1, 2, 5}) {
    omp_set_num_threads(threads);
    for (std::size_t fragment : {0u, 700u}) {
      const auto grid = cloudOf(xyz, fragment);
      Box box = everything(4, 0.25, 3);
      run(grid, box);
      results.push_back(values<float>(grid, "Sphericity"));
    }
  }
  omp_set_num_threads(before);
  for (std::size_t k = 2; k < results.size(); ++k)
    EXPECT_EQ(results[k], results[k % 2]) << k;
}

} // namespace
