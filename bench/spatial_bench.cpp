// SPDX-License-Identifier: BSD-3-Clause
// The bucket tree and the framework trees against nanoflann on the same cloud: building, one
// radius query per point with a radius that gives about 30 neighbours (results into a reused
// vector), and the nearest neighbour of each of 1M points beside the cloud's.
#include "airborne_cloud.hpp"
#include "nanoflann_cloud.hpp"
#include "tarrow/oc_tree_std.hpp"
#include "vantor/trees.hpp"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

using Vantor::PhysicalSpace::point;

constexpr double Radius2D = 3.1; // pi r^2 at 1 point / m^2: ~30 neighbours
constexpr double Radius3D = 4.0; // the sphere cuts the 2 m noisy surface: ~30 neighbours

template <int D>
double radiusFor() {
  return D == 2 ? Radius2D : Radius3D;
}

template <int D>
std::unique_ptr<Tarrow::OcTreeStd<unsigned, point, D>> buildTree() {
  const auto& xyz = bench::airborneCloud();
  point lo = xyz[0], hi = xyz[0];
  for (const point& p : xyz)
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  auto tree = std::make_unique<Tarrow::OcTreeStd<unsigned, point, D>>(lo, hi, 64);
  for (unsigned i = 0; i < xyz.size(); ++i)
    tree->insert(xyz[i], i);
  return tree;
}

template <int D>
void BM_OcTreeStdBuild(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(buildTree<D>());
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}

// One radius query per point of the cloud: query(p, radius, found) appends p's neighbours.
template <int D, class Query>
void radiusPerPoint(benchmark::State& state, const Query& query) {
  const auto& xyz = bench::airborneCloud();
  std::vector<unsigned> found;
  found.reserve(256);
  std::size_t total = 0;
  for (auto _ : state) {
    total = 0;
    for (const point& p : xyz) {
      found.clear();
      query(p, radiusFor<D>(), found);
      total += found.size();
    }
  }
  state.counters["neighbours"] = static_cast<double>(total) / static_cast<double>(xyz.size());
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}

template <int D>
void BM_OcTreeStdRadius(benchmark::State& state) {
  const auto tree = buildTree<D>();
  radiusPerPoint<D>(state, [&](const point& p, double r, std::vector<unsigned>& found) {
    tree->getEuclideanRangeFine(p, r, found);
  });
}

using bench::CloudAdaptor;
using bench::KdTree;

template <int D>
void BM_NanoflannBuild(benchmark::State& state) {
  CloudAdaptor adaptor{bench::airborneCloud()};
  for (auto _ : state) {
    KdTree<D> index(D, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    index.buildIndex();
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}

template <int D>
void BM_NanoflannRadius(benchmark::State& state) {
  CloudAdaptor adaptor{bench::airborneCloud()};
  KdTree<D> index(D, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
  index.buildIndex();
  std::vector<std::pair<unsigned, double>> found;
  found.reserve(256);
  nanoflann::SearchParams params;
  params.sorted = false;
  const double r2 = radiusFor<D>() * radiusFor<D>();
  std::size_t total = 0;
  for (auto _ : state) {
    total = 0;
    for (const point& p : adaptor.points) {
      const double q[3] = {p.x, p.y, p.z};
      total += index.radiusSearch(q, r2, found, params);
    }
  }
  state.counters["neighbours"] =
      static_cast<double>(total) / static_cast<double>(adaptor.points.size());
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(adaptor.points.size()));
}

// The cloud's points moved by a fraction of the spacing: queries near, not on, the entries.
const std::vector<point>& besideCloud() {
  static const std::vector<point> points = [] {
    std::vector<point> out = bench::airborneCloud();
    for (point& p : out)
      p = {p.x + 0.17, p.y - 0.11, p.z + 0.05};
    return out;
  }();
  return points;
}

template <int D>
std::shared_ptr<Vantor::BucketTree<unsigned, D>> buildFrameworkTree() {
  auto box = std::make_shared<Vantor::BoundingBox>();
  for (const point& p : bench::airborneCloud())
    box->expand(p);
  auto tree = std::make_shared<Vantor::BucketTree<unsigned, D>>(box, 64);
  tree->reserve(bench::airborneCloud().size());
  for (unsigned i = 0; i < bench::airborneCloud().size(); ++i)
    tree->insert(bench::airborneCloud()[i], i);
  return tree;
}

// Insertion, the division (made by the first query) and every nearest neighbour within 2 m.
template <int D>
void BM_FrameworkTreeNearestEach(benchmark::State& state) {
  const auto& asked = besideCloud();
  std::vector<unsigned> nearest(asked.size());
  for (auto _ : state) {
    auto tree = buildFrameworkTree<D>();
    tree->findNearestEach(
        asked.size(), [&](std::size_t k) { return asked[k]; }, 2.0,
        [&](std::size_t k, const auto& found) { nearest[k] = found.index; });
    benchmark::DoNotOptimize(nearest.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(asked.size()));
}

// The same with nanoflann: build, then one nearest-neighbour search per point.
template <int D>
void BM_NanoflannNearestEach(benchmark::State& state) {
  CloudAdaptor adaptor{bench::airborneCloud()};
  const auto& asked = besideCloud();
  std::vector<unsigned> nearest(asked.size());
  for (auto _ : state) {
    KdTree<D> index(D, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    index.buildIndex();
    for (std::size_t k = 0; k < asked.size(); ++k) {
      const double q[3] = {asked[k].x, asked[k].y, asked[k].z};
      double squared = 0;
      if (index.knnSearch(q, 1, &nearest[k], &squared) == 1 && squared > 4.0)
        nearest[k] = 0;
    }
    benchmark::DoNotOptimize(nearest.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(asked.size()));
}

// The bucket tree's division alone (its keys, cells, nodes and entries in leaf order), on the
// threads the argument gives: the entries inserted beforehand by insertEach, as the algorithms
// fill their trees. nanoflann's build (BM_NanoflannBuild, one thread) is the yardstick.
template <int D>
void BM_FrameworkTreeBuild(benchmark::State& state) {
  const auto& xyz = bench::airborneCloud();
  auto box =
      std::make_shared<Vantor::BoundingBox>(Vantor::BoundingBox::of(xyz.data(), xyz.size(), 1));
  const int threads = static_cast<int>(state.range(0));
  std::unique_ptr<Vantor::BucketTree<unsigned, D>> tree;
  for (auto _ : state) {
    state.PauseTiming(); // the last tree freed and the next filled outside the timing
    tree.reset();
    tree = std::make_unique<Vantor::BucketTree<unsigned, D>>(box, 64);
    tree->insertEach(
        xyz.size(), threads, [](std::size_t) { return true; },
        [&](std::size_t i) { return xyz[i]; });
    state.ResumeTiming();
    tree->prepare(threads);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}

// The radius queries of the bucket tree's benchmark.
template <int D>
void BM_FrameworkTreeRadius(benchmark::State& state) {
  const auto tree = buildFrameworkTree<D>();
  radiusPerPoint<D>(state, [&](const point& p, double r, std::vector<unsigned>& found) {
    tree->getRange(p, r, found);
  });
}

BENCHMARK(BM_OcTreeStdBuild<2>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OcTreeStdBuild<3>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NanoflannBuild<2>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NanoflannBuild<3>)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FrameworkTreeBuild<2>)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FrameworkTreeBuild<3>)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OcTreeStdRadius<2>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_OcTreeStdRadius<3>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_NanoflannRadius<2>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_NanoflannRadius<3>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FrameworkTreeRadius<2>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FrameworkTreeRadius<3>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FrameworkTreeNearestEach<2>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FrameworkTreeNearestEach<3>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_NanoflannNearestEach<2>)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_NanoflannNearestEach<3>)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace

BENCHMARK_MAIN();
