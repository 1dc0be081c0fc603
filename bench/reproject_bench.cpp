// SPDX-License-Identifier: BSD-3-Clause
// Reprojection of 1M points from UTM 33N to UTM 32N (EPSG:32633 to 32632), in points per second:
// quorvel's reproject() on one and two threads, interpolating its checked cells (second argument
// 0) and transforming every point through PROJ (--exact, 1), against the yardsticks on the same
// points and one thread: GDAL's OGRCoordinateTransformation over arrays, and PROJ's
// proj_trans_generic, the floor that any caller of PROJ pays.
#include "airborne_cloud.hpp"
#include "io/raster.hpp"
#include "quorvel/filters/filters.hpp"
#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>
#include <ogr_spatialref.h>
#include <proj.h>

#include <memory>

namespace {

using Vantor::PhysicalSpace::point;

constexpr std::size_t Block = 4096;

struct Arrays {
  std::vector<double> x, y, z;
  Arrays() {
    for (const point& p : bench::airborneCloud()) {
      x.push_back(p.x);
      y.push_back(p.y);
      z.push_back(p.z);
    }
  }
};

void BM_QuorvelReproject(benchmark::State& state) {
  const auto& xyz = bench::airborneCloud();
  const auto transformation = Quorvel::Raster::transformation("EPSG:32633", "EPSG:32632");
  for (auto _ : state) {
    state.PauseTiming();
    auto grid = Tressel::PointCloudBuilder(xyz).build(Tressel::sequentialPartition(xyz.size(), 0));
    Quorvel::ReprojectionParameterBox box;
    box.threads = static_cast<std::int32_t>(state.range(0));
    box.exact = state.range(1) != 0;
    state.ResumeTiming();
    if (!Quorvel::reproject(grid, box, transformation.factory))
      state.SkipWithError(box.message.c_str());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(xyz.size()));
}
BENCHMARK(BM_QuorvelReproject)
    ->ArgsProduct({{1, 2}, {0, 1}})
    ->ArgNames({"threads", "exact"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_GdalTransform(benchmark::State& state) {
  OGRSpatialReference a, b;
  a.importFromEPSG(32633);
  b.importFromEPSG(32632);
  a.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  b.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
  const std::unique_ptr<OGRCoordinateTransformation> transform(
      OGRCreateCoordinateTransformation(&a, &b));
  const Arrays source;
  std::vector<int> ok(Block);
  for (auto _ : state) {
    state.PauseTiming();
    Arrays p = source;
    state.ResumeTiming();
    for (std::size_t at = 0; at < p.x.size(); at += Block) {
      const auto n = static_cast<int>(std::min(Block, p.x.size() - at));
      transform->Transform(n, &p.x[at], &p.y[at], &p.z[at], nullptr, ok.data());
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(source.x.size()));
}
BENCHMARK(BM_GdalTransform)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ProjTransGeneric(benchmark::State& state) {
  PJ_CONTEXT* context = proj_context_create();
  PJ* crsToCrs = proj_create_crs_to_crs(context, "EPSG:32633", "EPSG:32632", nullptr);
  PJ* transform = proj_normalize_for_visualization(context, crsToCrs);
  const Arrays source;
  for (auto _ : state) {
    state.PauseTiming();
    Arrays p = source;
    state.ResumeTiming();
    for (std::size_t at = 0; at < p.x.size(); at += Block) {
      const std::size_t n = std::min(Block, p.x.size() - at);
      proj_trans_generic(transform, PJ_FWD, &p.x[at], sizeof(double), n, &p.y[at], sizeof(double),
                         n, &p.z[at], sizeof(double), n, nullptr, 0, 0);
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(source.x.size()));
  proj_destroy(transform);
  proj_destroy(crsToCrs);
  proj_context_destroy(context);
}
BENCHMARK(BM_ProjTransGeneric)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
