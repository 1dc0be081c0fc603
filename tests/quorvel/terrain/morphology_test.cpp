// SPDX-License-Identifier: BSD-3-Clause
// Tests of the ground filter's raster kernels against brute force written here: the square
// opening (every window scanned), hole filling, the progressive opening's objects, slopes and
// bilinear reads on planes; each kernel on one thread and on several; and the box's printed form.
#include "quorvel/terrain/detail/morphology.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

namespace {

using Quorvel::detail::HeightGrid;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

HeightGrid randomGrid(std::size_t columns, std::size_t rows, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> z(0, 10);
  HeightGrid g;
  g.columns = columns;
  g.rows = rows;
  g.z.resize(columns * rows);
  for (float& v : g.z)
    v = z(rng);
  return g;
}

// The lowest (sign -1: highest) value of the window of radius r around every cell, clipped.
HeightGrid bruteExtreme(const HeightGrid& g, long r, float sign) {
  HeightGrid out = g;
  const long w = static_cast<long>(g.columns), h = static_cast<long>(g.rows);
  for (long j = 0; j < h; ++j)
    for (long i = 0; i < w; ++i) {
      float best = std::numeric_limits<float>::infinity();
      for (long y = std::max(0L, j - r); y <= std::min(h - 1, j + r); ++y)
        for (long x = std::max(0L, i - r); x <= std::min(w - 1, i + r); ++x)
          best = std::min(best, sign * g.z[static_cast<std::size_t>(y * w + x)]);
      out.z[static_cast<std::size_t>(j * w + i)] = sign * best;
    }
  return out;
}

TEST(GroundMorphology, OpeningMatchesEveryWindowScannedForRadiiBelowAndBeyondTheGrid) {
  for (const auto& [columns, rows] : {std::pair<std::size_t, std::size_t>{17, 9}, {1, 6}, {5, 1}})
    for (std::size_t r : {1u, 2u, 4u, 20u}) {
      const HeightGrid g = randomGrid(columns, rows, static_cast<unsigned>(columns * 31 + r));
      const HeightGrid expected =
          bruteExtreme(bruteExtreme(g, static_cast<long>(r), 1.0f), static_cast<long>(r), -1.0f);
      for (int threads : {1, 3}) {
        HeightGrid opened = g;
        Quorvel::detail::openSquare(opened, r, threads);
        EXPECT_EQ(opened.z, expected.z)
            << columns << " x " << rows << ", radius " << r << ", " << threads << " threads";
      }
    }
}

TEST(GroundMorphology, FillingKeepsKnownCellsAndStaysWithinTheirRange) {
  HeightGrid g = randomGrid(23, 14, 5);
  std::mt19937 rng(9);
  for (float& v : g.z) {
    if (rng() % 3 == 0)
      v = std::numeric_limits<float>::quiet_NaN();
  }
  const HeightGrid before = g;
  ASSERT_TRUE(Quorvel::detail::fillHoles(g));
  for (std::size_t k = 0; k < g.z.size(); ++k) {
    ASSERT_FALSE(std::isnan(g.z[k]));
    if (!std::isnan(before.z[k])) {
      EXPECT_EQ(g.z[k], before.z[k]);
    }
    EXPECT_GE(g.z[k], 0.0f);
    EXPECT_LE(g.z[k], 10.0f);
  }
  HeightGrid empty;
  empty.columns = 3;
  empty.rows = 2;
  empty.z.assign(6, std::numeric_limits<float>::quiet_NaN());
  EXPECT_FALSE(Quorvel::detail::fillHoles(empty));
  // A hole in a plane is filled close to the plane.
  HeightGrid plane;
  plane.columns = plane.rows = 32;
  plane.z.resize(32 * 32);
  for (std::size_t j = 0; j < 32; ++j)
    for (std::size_t i = 0; i < 32; ++i)
      plane.at(i, j) = 0.5f * static_cast<float>(i) + 0.25f * static_cast<float>(j);
  const HeightGrid exact = plane;
  for (std::size_t j = 12; j < 17; ++j)
    for (std::size_t i = 10; i < 15; ++i)
      plane.at(i, j) = std::numeric_limits<float>::quiet_NaN();
  Quorvel::detail::fillHoles(plane);
  for (std::size_t k = 0; k < plane.z.size(); ++k)
    EXPECT_NEAR(plane.z[k], exact.z[k], 0.75);
}

// Bit patterns, so that NaN cells compare equal to NaN cells.
std::vector<std::uint32_t> bitsOf(const HeightGrid& g) {
  std::vector<std::uint32_t> bits(g.z.size());
  std::memcpy(bits.data(), g.z.data(), g.z.size() * sizeof(float));
  return bits;
}

TEST(GroundMorphology, EveryKernelGivesOnManyThreadsWhatItGivesOnOne) {
  // Odd sizes, so that the coarser grids of the filling and the blocks of rows and columns end
  // in part cells and part blocks; a third of the cells are holes.
  HeightGrid holes = randomGrid(203, 77, 11);
  std::mt19937 rng(4);
  for (float& v : holes.z)
    if (rng() % 3 == 0)
      v = std::numeric_limits<float>::quiet_NaN();
  HeightGrid filledOnOne = holes, filledOnMany = holes;
  ASSERT_TRUE(Quorvel::detail::fillHoles(filledOnOne, 1));
  ASSERT_TRUE(Quorvel::detail::fillHoles(filledOnMany, 3));
  EXPECT_EQ(bitsOf(filledOnOne), bitsOf(filledOnMany));
  EXPECT_EQ(Quorvel::detail::progressiveObjects(filledOnOne, 0.05, 12, 1),
            Quorvel::detail::progressiveObjects(filledOnOne, 0.05, 12, 3));
  EXPECT_EQ(bitsOf(Quorvel::detail::slopeOf(filledOnOne, 1)),
            bitsOf(Quorvel::detail::slopeOf(filledOnOne, 3)));
}

TEST(GroundMorphology, ObjectsAreWhatStandsOutOfASlope) {
  // A 10% slope with a 6 x 4 cell block 5 high on it: only the block is an object (an opening
  // keeps a ramp as it is, up to the clipped edge, whose drop stays below the slope allowed).
  HeightGrid g;
  g.columns = 40;
  g.rows = 30;
  g.cell = 1.0;
  g.z.resize(g.columns * g.rows);
  for (std::size_t j = 0; j < g.rows; ++j)
    for (std::size_t i = 0; i < g.columns; ++i)
      g.at(i, j) = 0.1f * static_cast<float>(i) + ((i >= 10 && i < 16 && j >= 8 && j < 12) ? 5 : 0);
  const auto objects = Quorvel::detail::progressiveObjects(g, 0.15, 8);
  for (std::size_t j = 0; j < g.rows; ++j)
    for (std::size_t i = 0; i < g.columns; ++i)
      EXPECT_EQ(objects[j * g.columns + i], (i >= 10 && i < 16 && j >= 8 && j < 12) ? 1 : 0)
          << i << ", " << j;
}

TEST(GroundMorphology, AWideRoofAtTheEdgeIsAnObjectOnceTheWindowSpansIt) {
  // Ground in one corner strip (x < 23, y >= 29), a roof 25 high everywhere else, to the grid's
  // edges: a window wider than the roof opens it whole.
  HeightGrid g;
  g.columns = 84;
  g.rows = 75;
  g.z.resize(g.columns * g.rows);
  for (std::size_t j = 0; j < g.rows; ++j)
    for (std::size_t i = 0; i < g.columns; ++i)
      g.at(i, j) = i < 23 && j >= 29 ? 0.0f : 25.0f;
  const auto objects = Quorvel::detail::progressiveObjects(g, 0.15, 65);
  for (std::size_t k = 0; k < g.z.size(); ++k)
    ASSERT_EQ(objects[k], g.z[k] > 0 ? 1 : 0) << k;
}

TEST(GroundMorphology, SlopeAndBilinearAreExactOnAPlane) {
  HeightGrid g;
  g.columns = 6;
  g.rows = 5;
  g.cell = 2.0;
  g.z.resize(30);
  const auto plane = [](double x, double y) { return 3 + 0.3 * x - 0.4 * y; };
  for (std::size_t j = 0; j < 5; ++j)
    for (std::size_t i = 0; i < 6; ++i)
      g.at(i, j) = static_cast<float>(plane((i + 0.5) * 2, (j + 0.5) * 2));
  const HeightGrid slope = Quorvel::detail::slopeOf(g);
  for (float s : slope.z)
    EXPECT_NEAR(s, 0.5, 1e-5);
  for (double x : {1.0, 2.7, 6.0, 10.9})
    for (double y : {1.0, 4.2, 8.8})
      EXPECT_NEAR(Quorvel::detail::bilinear(g, x, y), plane(x, y), 1e-4);
  // Beyond the outermost centres the edge value holds.
  EXPECT_NEAR(Quorvel::detail::bilinear(g, -5, 1), plane(1, 1), 1e-4);
}

TEST(GroundMorphology, BoxPrintsEveryFieldButTheMessage) {
  CaptureStdout();
  Quorvel::GroundFilterParameterBox().print();
  EXPECT_EQ(GetCapturedStdout(), "method: smrf\ncell_size: 1\nslope: 0.15\nwindow: 18\n"
                                 "threshold: 0.5\nscalar: 1.25\nignore: 7.000000:7.000000,"
                                 "18.000000:18.000000\nreset: 0\n");
}

} // namespace
