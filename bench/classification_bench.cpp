// SPDX-License-Identifier: BSD-3-Clause
// Classification transfer of 1M source onto 1M target points (~0.4 m spacing, radius 1 m), one
// fragment and 16 fragments each, against a plain nanoflann nearest-neighbour pass over the same
// points as the yardstick.
#include "nanoflann_cloud.hpp"
#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"
#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>

#include <omp.h>
#include <random>
#include <vector>

namespace {

using Vantor::PhysicalSpace::point;

// 1M points over 400 m x 400 m (0.4 m mean spacing), heights on a slope with 0.3 m of noise.
std::vector<point> cloud(unsigned seed) {
  std::mt19937_64 random(seed);
  std::uniform_real_distribution<double> xy(0.0, 400.0);
  std::normal_distribution<double> noise(0.0, 0.3);
  std::vector<point> out(1'000'000);
  for (auto& p : out) {
    const double x = xy(random), y = xy(random);
    p = {5.0e5 + x, 5.4e6 + y, 200.0 + 0.02 * x + noise(random)};
  }
  return out;
}

const std::vector<point>& sourcePoints() {
  static const auto points = cloud(1);
  return points;
}
const std::vector<point>& targetPoints() {
  static const auto points = cloud(2);
  return points;
}

Basalt::StrongPtr<Tressel::Grid> grid(const std::vector<point>& xyz, double tile,
                                      unsigned char cls) {
  Tressel::PointCloudBuilder builder(xyz);
  builder.addField("Classification", std::vector<unsigned char>(xyz.size(), cls));
  return builder.build(Tressel::tilePartition(xyz, tile));
}

void BM_ClassificationTransfer(benchmark::State& state) {
  const double tile = state.range(0) == 1 ? 1000.0 : 100.0; // 1 or 16 fragments
  const int threads = static_cast<int>(state.range(1));
  omp_set_num_threads(threads + 1); // the library runs maximum minus one threads
  auto source = grid(sourcePoints(), tile, 2);
  auto target = grid(targetPoints(), tile, 1);
  for (auto _ : state) {
    Quorvel::ClassificationTransferParameterBox box("1");
    box.threads = threads;
    benchmark::DoNotOptimize(Quorvel::classificationTransfer(source, target, box));
  }
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}

using bench::CloudAdaptor;
using KdTree = bench::KdTree<3>;

void BM_NanoflannNearestYardstick(benchmark::State& state) {
  CloudAdaptor adaptor{sourcePoints()};
  std::vector<unsigned char> classes(targetPoints().size(), 1);
  for (auto _ : state) {
    KdTree index(3, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    index.buildIndex();
    for (std::size_t i = 0; i < targetPoints().size(); ++i) {
      const point& p = targetPoints()[i];
      const double q[3] = {p.x, p.y, p.z};
      unsigned nearest = 0;
      double squared = 0;
      if (index.knnSearch(q, 1, &nearest, &squared) == 1 && squared <= 1.0)
        classes[i] = 2;
    }
    benchmark::DoNotOptimize(classes.data());
  }
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}

BENCHMARK(BM_ClassificationTransfer)
    ->Args({1, 1})
    ->Args({16, 1})
    ->Args({16, 2})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);
BENCHMARK(BM_NanoflannNearestYardstick)->Unit(benchmark::kMillisecond)->Iterations(2);

} // namespace

BENCHMARK_MAIN();
