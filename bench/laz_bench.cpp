// SPDX-License-Identifier: BSD-3-Clause
// LAZ decoding: the records of a LAZ file (QUORVEL_LAZ, by default the shared bcts_4.laz: point
// format 1, 591,489 points) decoded into a cloud on 1 and 2 threads, against reading the same
// points from its uncompressed LAS (QUORVEL_LAS, by default bcts_4.decoded.las beside it); and
// the points written as LAZ again on 1 and 2 threads, with the size against the input's.
#include "io/las.hpp"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <omp.h>

namespace {

std::string fileOf(const char* variable, const char* fallback) {
  const char* set = std::getenv(variable);
  return set ? set : std::string(QUORVEL_SHARED_DATA) + fallback;
}

void readPoints(benchmark::State& state, const std::string& path) {
  if (!std::filesystem::exists(path)) {
    state.SkipWithError(("no file " + path).c_str());
    return;
  }
  omp_set_num_threads(static_cast<int>(state.range(0)));
  std::uint64_t points = 0;
  for (auto _ : state)
    points = Quorvel::Las::read(path).info.header.pointCount;
  state.counters["points/s"] = benchmark::Counter(static_cast<double>(points),
                                                  benchmark::Counter::kIsIterationInvariantRate);
}

void BM_ReadLaz(benchmark::State& state) {
  readPoints(state, fileOf("QUORVEL_LAZ", "/laz/bcts_4.laz"));
}
BENCHMARK(BM_ReadLaz)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Writing the points read from the LAZ file as LAZ again: records, chunks and the file.
void BM_WriteLaz(benchmark::State& state) {
  const std::string path = fileOf("QUORVEL_LAZ", "/laz/bcts_4.laz");
  if (!std::filesystem::exists(path)) {
    state.SkipWithError(("no file " + path).c_str());
    return;
  }
  const auto read = Quorvel::Las::read(path);
  const std::string out = std::filesystem::temp_directory_path() / "quorvel-laz-bench.laz";
  omp_set_num_threads(static_cast<int>(state.range(0)));
  for (auto _ : state)
    Quorvel::Las::write(out, *read.grid);
  state.counters["points/s"] = benchmark::Counter(static_cast<double>(read.info.header.pointCount),
                                                  benchmark::Counter::kIsIterationInvariantRate);
  state.counters["size/input"] = static_cast<double>(std::filesystem::file_size(out)) /
                                 static_cast<double>(std::filesystem::file_size(path));
}
BENCHMARK(BM_WriteLaz)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReadLas(benchmark::State& state) {
  readPoints(state, fileOf("QUORVEL_LAS", "/laz/bcts_4.decoded.las"));
}
BENCHMARK(BM_ReadLas)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
