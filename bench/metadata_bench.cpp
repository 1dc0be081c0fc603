// SPDX-License-Identifier: BSD-3-Clause
// Cell size of 1M points in one fragment on one thread (the library runs maximum minus one).
#include "airborne_cloud.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>
#include <omp.h>

namespace {

void BM_SetCellSize(benchmark::State& state) {
  omp_set_num_threads(2);
  const auto& xyz = bench::airborneCloud();
  // A 100 m x 100 m tile of the cloud scaled to 1M points: 0.1 m voxels, ~1 point each.
  std::vector<Vantor::PhysicalSpace::point> tile(xyz);
  for (auto& p : tile) {
    p.x = 5.0e5 + (p.x - 5.0e5) / 10;
    p.y = 5.4e6 + (p.y - 5.4e6) / 10;
  }
  auto grid = Tressel::PointCloudBuilder(tile).build(Tressel::sequentialPartition(tile.size(), 0));
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::setCellSize(grid, nullptr));
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(tile.size()));
}
BENCHMARK(BM_SetCellSize)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
