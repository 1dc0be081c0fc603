// SPDX-License-Identifier: BSD-3-Clause
// COPC writing against plain LAZ writing: 2,000,000 airborne-like points (2 km x 1 km at one
// point per square metre, intensity, class and GPS time) written as LAZ and as COPC on 1 and 2
// threads. COPC adds the octree (a sort along a Morton curve, a pass per level) and the records'
// reordering to the same chunk encoding; it should take at most twice the time of LAZ.
#include "io/las.hpp"

#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <omp.h>
#include <random>

namespace {

const Tressel::Grid& cloud() {
  static const auto grid = [] {
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> x(0.0, 2000.0), y(0.0, 1000.0), unit(0.0, 1.0);
    std::normal_distribution<double> noise(0.0, 2.0);
    constexpr std::size_t n = 2'000'000;
    std::vector<Vantor::PhysicalSpace::point> points(n);
    std::vector<unsigned short> intensity(n);
    std::vector<unsigned char> classes(n);
    std::vector<double> times(n);
    for (std::size_t i = 0; i < n; ++i) {
      const double px = x(random), py = y(random);
      points[i] = {5.0e5 + px, 5.4e6 + py, 200.0 + 0.02 * px + noise(random)};
      intensity[i] = static_cast<unsigned short>(unit(random) * 4000);
      classes[i] = unit(random) < 0.3 ? 2 : 5;
      times[i] = 3.0e8 + static_cast<double>(i) * 1e-5; // flight-line order, as scanned
    }
    Tressel::PointCloudBuilder builder(points);
    builder.addField("Intensity", intensity);
    builder.addField("Classification", classes);
    builder.addField("GpsTime", times);
    return builder.build(Tressel::sequentialPartition(n, 0));
  }();
  return *grid;
}

void writeAs(benchmark::State& state, const char* name) {
  const Tressel::Grid& grid = cloud();
  const std::string out = std::filesystem::temp_directory_path() / name;
  omp_set_num_threads(static_cast<int>(state.range(0)));
  for (auto _ : state)
    Quorvel::Las::write(out, grid);
  state.counters["points/s"] =
      benchmark::Counter(2e6, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["bytes/point"] = static_cast<double>(std::filesystem::file_size(out)) / 2e6;
  std::filesystem::remove(out);
}

void BM_WriteLaz(benchmark::State& state) {
  writeAs(state, "quorvel-copc-bench.laz");
}
BENCHMARK(BM_WriteLaz)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WriteCopc(benchmark::State& state) {
  writeAs(state, "quorvel-copc-bench.copc.laz");
}
BENCHMARK(BM_WriteCopc)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
