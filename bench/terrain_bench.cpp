// SPDX-License-Identifier: BSD-3-Clause
// Terrain benchmarks over one fragment of 1M airborne-like points at about 0.35 m spacing (350 m x
// 350 m, about 33 points in a 2 m square): relative height plus belows on one thread, and the
// planar regression growing ground from class 2 seeds (candidates class 0 or 1, radius 1 m, 2D),
// one round measured against a plain nanoflann radius-search pass over the same points and radii.
#include "nanoflann_cloud.hpp"

#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/terrain.hpp"
#include "vantor/trees.hpp"

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cmath>
#include <omp.h>
#include <random>

namespace {

using Vantor::PhysicalSpace::point;

// Ground on gentle hills with 5 cm of noise, and a quarter of the points 1 to 15 m above it
// (vegetation, class 1). Every fifth ground point is a seed (class 2); the others are class 0.
struct TerrainCloud {
  std::vector<point> xyz;
  std::vector<unsigned char> classes;
  std::shared_ptr<Vantor::BoundingBox> bbox;
};

const TerrainCloud& terrainCloud() {
  static const TerrainCloud cloud = [] {
    TerrainCloud c;
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> xy(0.0, 350.0), u(0.0, 1.0);
    std::normal_distribution<double> noise(0.0, 0.05);
    c.xyz.resize(1'000'000);
    c.classes.resize(c.xyz.size());
    for (std::size_t i = 0; i < c.xyz.size(); ++i) {
      const double x = xy(random), y = xy(random);
      const double ground = 300 + 8 * std::sin(x / 60) * std::cos(y / 45) + noise(random);
      const bool vegetation = u(random) < 0.25;
      c.xyz[i] = {5.0e5 + x, 5.4e6 + y, vegetation ? ground + 1 + 14 * u(random) : ground};
      c.classes[i] = vegetation ? 1 : (u(random) < 0.2 ? 2 : 0);
    }
    c.bbox = std::make_shared<Vantor::BoundingBox>(c.xyz.front(), c.xyz.front());
    for (const point& p : c.xyz)
      c.bbox->expand(p);
    return c;
  }();
  return cloud;
}

template <class T>
Tressel::MultiArray<1, T> viewOf(std::vector<std::remove_const_t<T>>& values) {
  return Tressel::MultiArray<1, T>::dense(values.data(), {values.size()});
}

// Both measures with half width 1 m on one thread, trees included.
void BM_RelativeHeightAndBelows(benchmark::State& state) {
  const TerrainCloud& cloud = terrainCloud();
  auto xyz = cloud.xyz;
  std::vector<float> heights(xyz.size());
  std::vector<unsigned char> belows(xyz.size());
  const int saved = omp_get_max_threads();
  omp_set_num_threads(1);
  Tressel::RelativeHeightBox height{1.0};
  Tressel::RelativeBelowsBox below{1.0};
  for (auto _ : state) {
    height.compute(viewOf<float>(heights), viewOf<const point>(xyz), cloud.bbox);
    below.compute(viewOf<unsigned char>(belows), viewOf<const point>(xyz), cloud.bbox);
    benchmark::ClobberMemory();
  }
  omp_set_num_threads(saved);
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_RelativeHeightAndBelows)->Unit(benchmark::kMillisecond)->MinTime(3.0);

Quorvel::PlanarRegressionParameterBox growingBox(int rounds) {
  Quorvel::PlanarRegressionParameterBox box;
  box.working_range = Vantor::MultiRange<double>("0:1");
  box.maximum_iteration = rounds;
  return box;
}

// The first round of the growing on `threads` threads (tree build, queries and fits), beside a
// nanoflann pass in the same iteration: a k-d tree over the same seeds and a radius search of
// 1 m in x and y for every candidate. ratio = round / nanoflann.
void BM_RegressionRoundVsNanoflann(benchmark::State& state) {
  const TerrainCloud& cloud = terrainCloud();
  const int saved = omp_get_max_threads();
  omp_set_num_threads(static_cast<int>(state.range(0)) + 1); // the library leaves one out
  auto xyz = cloud.xyz;
  std::vector<point> seeds;
  std::size_t candidates = 0;
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    if (cloud.classes[i] == 2)
      seeds.push_back(xyz[i]);
    candidates += cloud.classes[i] <= 1;
  }
  double roundSeconds = 0, nanoflannSeconds = 0;
  std::size_t found = 0;
  for (auto _ : state) {
    auto classes = cloud.classes;
    auto box = growingBox(1);
    auto view = viewOf<unsigned char>(classes);
    const auto start = std::chrono::steady_clock::now();
    Quorvel::detail::regressFragment(viewOf<point>(xyz), cloud.bbox, box, view);
    const auto middle = std::chrono::steady_clock::now();
    bench::CloudAdaptor adaptor{seeds};
    bench::KdTree<2> index(2, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    index.buildIndex();
    found = 0;
    const long long n = static_cast<long long>(xyz.size());
#pragma omp parallel num_threads(static_cast <int>(state.range(0))) reduction(+ : found)
    {
      std::vector<std::pair<unsigned, double>> matches;
      nanoflann::SearchParams params;
      params.sorted = false;
#pragma omp for schedule(static)
      for (long long i = 0; i < n; ++i)
        if (cloud.classes[static_cast<std::size_t>(i)] <= 1) {
          const point& p = xyz[static_cast<std::size_t>(i)];
          const double q[2] = {p.x, p.y};
          found += index.radiusSearch(q, 1.0, matches, params);
        }
    }
    const auto end = std::chrono::steady_clock::now();
    roundSeconds += std::chrono::duration<double>(middle - start).count();
    nanoflannSeconds += std::chrono::duration<double>(end - middle).count();
  }
  omp_set_num_threads(saved);
  const double iterations = static_cast<double>(state.iterations());
  state.counters["round_s"] = roundSeconds / iterations;
  state.counters["nanoflann_s"] = nanoflannSeconds / iterations;
  state.counters["ratio"] = roundSeconds / nanoflannSeconds;
  state.counters["evaluations/s"] = static_cast<double>(candidates) * iterations / roundSeconds;
  state.counters["seeds/query"] = static_cast<double>(found) / static_cast<double>(candidates);
}
BENCHMARK(BM_RegressionRoundVsNanoflann)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);

// What a round spends on its tree: filling a 2-D tree with the seeds of the first round (the
// classes test of every point included) and dividing it, which the first query does.
void BM_RegressionRoundTree(benchmark::State& state) {
  const TerrainCloud& cloud = terrainCloud();
  const Vantor::MultiRange<double> source("2");
  std::vector<unsigned> found;
  for (auto _ : state) {
    auto tree = std::make_shared<Vantor::QuadTree<unsigned>>(cloud.bbox, 64);
    tree->reserve(cloud.xyz.size());
    for (std::size_t i = 0; i < cloud.xyz.size(); ++i)
      if (source.contains(cloud.classes[i], 1e-9))
        tree->insert(cloud.xyz[i], static_cast<unsigned>(i));
    found.clear();
    tree->getRange(cloud.xyz.front(), 1.0, found);
    benchmark::DoNotOptimize(found.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(cloud.xyz.size()));
}
BENCHMARK(BM_RegressionRoundTree)->Unit(benchmark::kMillisecond);

// The whole growing until it stops by itself (or after 50 rounds) on the library's threads.
void BM_RegressionGrowing(benchmark::State& state) {
  const TerrainCloud& cloud = terrainCloud();
  auto xyz = cloud.xyz;
  int rounds = 0;
  std::size_t ground = 0;
  for (auto _ : state) {
    auto classes = cloud.classes;
    auto box = growingBox(50);
    auto view = viewOf<unsigned char>(classes);
    rounds = Quorvel::detail::regressFragment(viewOf<point>(xyz), cloud.bbox, box, view);
    ground = static_cast<std::size_t>(std::count(classes.begin(), classes.end(), 2));
  }
  state.counters["rounds"] = rounds;
  state.counters["ground"] = static_cast<double>(ground);
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_RegressionGrowing)->Unit(benchmark::kMillisecond)->Iterations(1);

// One extrapolation round of each mode (0 planarregression, 1 threshold, 2 classification,
// 3 constant; radius 1 m in x and y, seeds class 2, candidates class 0), one thread, beside a
// nanoflann pass in the same iteration: a k-d tree over the same seeds and a radius search of
// every candidate. ratio = round / nanoflann. Then the whole extrapolation until it stops
// (at most 50 rounds): rounds and points/s.
void BM_ExtrapolationRoundVsNanoflann(benchmark::State& state) {
  const TerrainCloud& cloud = terrainCloud();
  const int saved = omp_get_max_threads();
  omp_set_num_threads(2); // the library leaves one out
  auto xyz = cloud.xyz;
  Quorvel::ExtrapolationParameterBox box;
  box.mode = std::array<const char*, 4>{"planarregression", "threshold", "classification",
                                        "constant"}[static_cast<std::size_t>(state.range(0))];
  box.maximum_iteration = 1;
  std::vector<point> seeds;
  for (std::size_t i = 0; i < xyz.size(); ++i)
    if (cloud.classes[i] == 2)
      seeds.push_back(xyz[i]);
  double roundSeconds = 0, nanoflannSeconds = 0;
  for (auto _ : state) {
    auto classes = cloud.classes;
    auto view = viewOf<unsigned char>(classes);
    const auto start = std::chrono::steady_clock::now();
    Quorvel::detail::extrapolateFragment(viewOf<point>(xyz), cloud.bbox, box, view);
    const auto middle = std::chrono::steady_clock::now();
    bench::CloudAdaptor adaptor{seeds};
    bench::KdTree<2> index(2, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    index.buildIndex();
    std::vector<std::pair<unsigned, double>> matches;
    nanoflann::SearchParams params;
    params.sorted = false;
    std::size_t found = 0;
    for (std::size_t i = 0; i < xyz.size(); ++i)
      if (cloud.classes[i] == 0) {
        const double q[2] = {xyz[i].x, xyz[i].y};
        found += index.radiusSearch(q, 1.0, matches, params);
      }
    benchmark::DoNotOptimize(found);
    const auto end = std::chrono::steady_clock::now();
    roundSeconds += std::chrono::duration<double>(middle - start).count();
    nanoflannSeconds += std::chrono::duration<double>(end - middle).count();
  }
  auto classes = cloud.classes;
  auto view = viewOf<unsigned char>(classes);
  box.maximum_iteration = 50;
  const auto start = std::chrono::steady_clock::now();
  const int rounds =
      Quorvel::detail::extrapolateFragment(viewOf<point>(xyz), cloud.bbox, box, view);
  const double whole =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  omp_set_num_threads(saved);
  const double iterations = static_cast<double>(state.iterations());
  state.counters["round_s"] = roundSeconds / iterations;
  state.counters["nanoflann_s"] = nanoflannSeconds / iterations;
  state.counters["ratio"] = roundSeconds / nanoflannSeconds;
  state.counters["rounds"] = rounds;
  state.counters["whole_s"] = whole;
  state.counters["points/s"] = static_cast<double>(xyz.size()) * rounds / whole;
}
BENCHMARK(BM_ExtrapolationRoundVsNanoflann)
    ->DenseRange(0, 3)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3);

} // namespace

BENCHMARK_MAIN();
