// SPDX-License-Identifier: BSD-3-Clause
// Throughput of the framework paths every algorithm run goes through: building a fragmented
// point cloud from arrays, reading a field back, fragment bounding boxes, class-range tests.
// The yardstick of each is the plain copy or loop over the same std::vector data.
#include "airborne_cloud.hpp"
#include "tressel/bounding_boxes.hpp"
#include "tressel/point_cloud.hpp"
#include "vantor/multi_range.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using Vantor::PhysicalSpace::point;

constexpr std::size_t PointCount = 1'000'000;

const std::vector<point>& cloud() {
  return bench::airborneCloud();
}

void BM_BuildPointCloudTiled(benchmark::State& state) {
  const auto& xyz = cloud();
  std::vector<unsigned char> classes(xyz.size(), 2);
  for (auto _ : state) {
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("Classification", classes);
    auto grid = builder.build(Tressel::tilePartition(xyz, 100.0));
    benchmark::DoNotOptimize(grid);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_BuildPointCloudTiled)->Unit(benchmark::kMillisecond);

void BM_CopyArraysYardstick(benchmark::State& state) {
  const auto& xyz = cloud();
  std::vector<unsigned char> classes(xyz.size(), 2);
  for (auto _ : state) {
    std::vector<point> a(xyz);
    std::vector<unsigned char> b(classes);
    benchmark::DoNotOptimize(a.data());
    benchmark::DoNotOptimize(b.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_CopyArraysYardstick)->Unit(benchmark::kMillisecond);

void BM_FieldBoundingBox(benchmark::State& state) {
  const auto& xyz = cloud();
  auto grid =
      Tressel::PointCloudBuilder(xyz).build(Tressel::sequentialPartition(xyz.size(), 50000));
  auto positions = grid->CartesianPositions();
  for (auto _ : state) {
    // Stored boxes are skipped on purpose: touch makes them stale, so every point is visited.
    positions->iterate([](const auto&, const auto& creator) {
      creator->touch();
      return true;
    });
    benchmark::DoNotOptimize(Tressel::getBoundingBox(*positions));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_FieldBoundingBox)->Unit(benchmark::kMillisecond);

void BM_BoundingBoxLoopYardstick(benchmark::State& state) {
  const auto& xyz = cloud();
  for (auto _ : state) {
    point lo = xyz[0], hi = xyz[0];
    for (const point& p : xyz)
      for (int k = 0; k < 3; ++k) {
        lo[k] = std::min(lo[k], p[k]);
        hi[k] = std::max(hi[k], p[k]);
      }
    benchmark::DoNotOptimize(lo);
    benchmark::DoNotOptimize(hi);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_BoundingBoxLoopYardstick)->Unit(benchmark::kMillisecond);

void BM_MultiRangeContains(benchmark::State& state) {
  const Vantor::MultiRange<double> range("2;3:5;9;17:19");
  std::vector<unsigned char> classes(PointCount);
  std::mt19937 random(1);
  for (auto& c : classes)
    c = static_cast<unsigned char>(random() % 32);
  for (auto _ : state) {
    std::size_t hits = 0;
    for (unsigned char c : classes)
      hits += range.contains(c, 1e-9);
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(classes.size()));
}
BENCHMARK(BM_MultiRangeContains)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
