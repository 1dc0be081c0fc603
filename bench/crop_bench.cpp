// SPDX-License-Identifier: BSD-3-Clause
// insidePolygons() on 1M points over the box of a star of 1,000 vertices (spikes from 0.6 to 1
// radius, the polygon of filters_yardstick.py), in points per second: the points in random
// order (the generated survey's) and sorted along scan lines (a flight's), and the polygon's
// index built alone. The yardstick is the whole crop against reading and writing the file
// (filters_yardstick.py); this isolates the test itself.
#include "quorvel/filters/filters.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

namespace {

using Quorvel::Polygon;

const Polygon& star() {
  static const Polygon polygon = [] {
    Polygon p;
    p.rings.emplace_back();
    for (int k = 0; k < 1000; ++k) {
      const double r = 158.1 * (k % 2 ? 1.0 : 0.6), a = 2 * M_PI * k / 1000;
      p.rings[0].push_back({500158.1 + r * std::cos(a), 4000158.1 + r * std::sin(a)});
    }
    return p;
  }();
  return polygon;
}

struct Points {
  std::vector<double> x, y;
};

// 1M points uniform over the star's box; sorted: in rows of 1 m, west to east.
Points points(bool sorted) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> u(0.0, 316.2);
  Points p;
  for (int i = 0; i < 1'000'000; ++i) {
    p.x.push_back(500000.0 + u(random));
    p.y.push_back(4000000.0 + u(random));
  }
  if (!sorted)
    return p;
  std::vector<std::size_t> order(p.x.size());
  std::iota(order.begin(), order.end(), 0);
  std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return std::pair(std::floor(p.y[a]), p.x[a]) < std::pair(std::floor(p.y[b]), p.x[b]);
  });
  Points s;
  for (const std::size_t i : order) {
    s.x.push_back(p.x[i]);
    s.y.push_back(p.y[i]);
  }
  return s;
}

void BM_InsideStar(benchmark::State& state) {
  const Points p = points(state.range(0) != 0);
  const std::vector<Polygon> polygons{star()};
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::insidePolygons(polygons, p.x.size(), p.x.data(), p.y.data()));
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(p.x.size()));
}
BENCHMARK(BM_InsideStar)->Arg(0)->Arg(1)->ArgName("scanlines")->Unit(benchmark::kMillisecond);

void BM_IndexStar(benchmark::State& state) {
  const std::vector<Polygon> polygons{star()};
  const double x = 500000.0, y = 4000000.0;
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::insidePolygons(polygons, 1, &x, &y));
}
BENCHMARK(BM_IndexStar)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
