// SPDX-License-Identifier: BSD-3-Clause
// Tests of point-in-polygon against a winding-number count with its own on-edge test, exact in
// integers on lattices that put points on cell borders, vertices and edges.
#include "quorvel/filters/filters.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>

namespace {

using namespace Quorvel;

// ---- The oracle: winding numbers, boundaries inside ------------------------------------------

// Twice the signed area of (a, b, p): exact for the quarter-unit lattices below, whose products
// need far fewer than 53 bits.
double orientation(const std::array<double, 2>& a, const std::array<double, 2>& b, double x,
                   double y) {
  return (b[0] - a[0]) * (y - a[1]) - (b[1] - a[1]) * (x - a[0]);
}

bool onRing(const Ring& ring, double x, double y) {
  for (std::size_t k = 0; k < ring.size(); ++k) {
    const auto& a = ring[k];
    const auto& b = ring[(k + 1) % ring.size()];
    if (orientation(a, b, x, y) == 0 && std::min(a[0], b[0]) <= x && x <= std::max(a[0], b[0]) &&
        std::min(a[1], b[1]) <= y && y <= std::max(a[1], b[1]))
      return true;
  }
  return false;
}

int winding(const Ring& ring, double x, double y) {
  int w = 0;
  for (std::size_t k = 0; k < ring.size(); ++k) {
    const auto& a = ring[k];
    const auto& b = ring[(k + 1) % ring.size()];
    if (a[1] <= y && b[1] > y && orientation(a, b, x, y) > 0)
      ++w;
    else if (a[1] > y && b[1] <= y && orientation(a, b, x, y) < 0)
      --w;
  }
  return w;
}

bool inUnion(const std::vector<Polygon>& polygons, double x, double y) {
  for (const Polygon& p : polygons) {
    bool in = winding(p.rings[0], x, y) != 0;
    for (std::size_t h = 1; h < p.rings.size(); ++h)
      in = in && winding(p.rings[h], x, y) == 0;
    for (const Ring& ring : p.rings)
      in = in || onRing(ring, x, y);
    if (in)
      return true;
  }
  return false;
}

void expectLikeTheOracle(const std::vector<Polygon>& polygons, const std::vector<double>& x,
                         const std::vector<double>& y) {
  const auto inside = insidePolygons(polygons, x.size(), x.data(), y.data());
  std::size_t in = 0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    ASSERT_EQ(inside[i] != 0, inUnion(polygons, x[i], y[i])) << "at " << x[i] << ", " << y[i];
    in += inside[i];
  }
  EXPECT_GT(in, 0u);
  EXPECT_LT(in, x.size());
}

Polygon shifted(Polygon p, double dx, double dy) {
  for (Ring& ring : p.rings)
    for (auto& v : ring)
      v = {v[0] + dx, v[1] + dy};
  return p;
}

// A diamond of 4 edges in a 16 x 16 box, whose grid has cells of side 1, so its edges run
// through cell corners; a U of 8 edges with a hole of 8 (collinear vertices on each side) in
// another 16 x 16 box, cells of side 0.5; a triangle; a zero-area sliver (only its edge counts).
std::vector<Polygon> lattice() {
  Polygon diamond{{{{0, 8}, {8, 0}, {16, 8}, {8, 16}}}};
  Polygon u{{{{20, 0}, {36, 0}, {36, 16}, {30, 16}, {30, 6}, {26, 6}, {26, 16}, {20, 16}},
             {{21, 1}, {23, 1}, {25, 1}, {25, 3}, {25, 5}, {23, 5}, {21, 5}, {21, 3}}}};
  Polygon triangle{{{{0, 20}, {7, 27}, {3, 21}}}};
  Polygon sliver{{{{10, 20}, {14, 22}, {12, 21}}}};
  return {diamond, u, triangle, sliver};
}

TEST(PointInPolygon, LatticePointsOnCellBordersVerticesAndEdgesAtAnyOffset) {
  for (const double offset : {0.0, 5e6}) {
    std::vector<Polygon> polygons;
    for (const Polygon& p : lattice())
      polygons.push_back(shifted(p, offset, -offset));
    std::vector<double> x, y;
    for (int i = -4; i <= 4 * 37; ++i)
      for (int j = -4; j <= 4 * 28; ++j) {
        x.push_back(offset + i * 0.25);
        y.push_back(-offset + j * 0.25);
      }
    expectLikeTheOracle(polygons, x, y);
  }
}

TEST(PointInPolygon, ASpikyStarOfAThousandVerticesAgainstEveryEdge) {
  Polygon star;
  star.rings.emplace_back();
  const double cx = 500158.1, cy = 4000158.1, r = 158.1;
  for (int k = 0; k < 1000; ++k) {
    const double f = (k % 2 ? 1.0 : 0.6) * r, a = 2 * M_PI * k / 1000;
    star.rings[0].push_back({cx + f * std::cos(a), cy + f * std::sin(a)});
  }
  // A hole in the middle, and a second polygon overlapping the spikes.
  star.rings.push_back({{cx - 20, cy + 40}, {cx + 20, cy + 40}, {cx, cy + 80}});
  const Polygon square{
      {{{cx + 120, cy - 40}, {cx + 200, cy - 40}, {cx + 200, cy + 40}, {cx + 120, cy + 40}}}};
  std::mt19937_64 random(3);
  std::uniform_real_distribution<double> u(-170.0, 210.0);
  std::vector<double> x, y;
  for (int i = 0; i < 30000; ++i) {
    x.push_back(cx + u(random));
    y.push_back(cy + u(random));
  }
  for (const auto& v : star.rings[0]) { // every vertex is on the boundary
    x.push_back(v[0]);
    y.push_back(v[1]);
  }
  expectLikeTheOracle({star, square}, x, y);
}

} // namespace
