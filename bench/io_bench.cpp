// SPDX-License-Identifier: BSD-3-Clause
// Reading, summarizing and writing 1M points of LAS (point format 6, 30 bytes a point), in points
// and MB of file per second.
#include "airborne_cloud.hpp"
#include "io/las.hpp"
#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>

#include <filesystem>
#include <unistd.h>

namespace {

// The sample file, written once and removed when the program ends.
struct SampleFile {
  std::string path = (std::filesystem::temp_directory_path() /
                      ("quorvel-io-bench-" + std::to_string(::getpid()) + ".las"))
                         .string();
  SampleFile() {
    const auto& xyz = bench::airborneCloud();
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("Classification", std::vector<unsigned char>(xyz.size(), 2));
    builder.addField("Intensity", std::vector<unsigned short>(xyz.size(), 300));
    Quorvel::Las::write(path, *builder.build(Tressel::sequentialPartition(xyz.size(), 0)));
  }
  ~SampleFile() {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    std::filesystem::remove(path + ".out", ignored);
  }
};

const std::string& sampleFile() {
  static const SampleFile file;
  return file.path;
}

void BM_ReadLas(benchmark::State& state) {
  const auto bytes = std::filesystem::file_size(sampleFile());
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::Las::read(sampleFile()));
  state.SetBytesProcessed(state.iterations() * static_cast<long long>(bytes));
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}
BENCHMARK(BM_ReadLas)->Unit(benchmark::kMillisecond);

// The same file split into x-y tiles of about 250,000 points.
void BM_ReadLasTiled(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::Las::read(sampleFile(), 250000));
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}
BENCHMARK(BM_ReadLasTiled)->Unit(benchmark::kMillisecond);

void BM_SummarizeLas(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::Las::summarize(sampleFile()));
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}
BENCHMARK(BM_SummarizeLas)->Unit(benchmark::kMillisecond);

void BM_WriteLas(benchmark::State& state) {
  const auto cloud = Quorvel::Las::read(sampleFile());
  const std::string out = sampleFile() + ".out";
  for (auto _ : state)
    Quorvel::Las::write(out, *cloud.grid);
  state.SetBytesProcessed(state.iterations() *
                          static_cast<long long>(std::filesystem::file_size(out)));
  state.SetItemsProcessed(state.iterations() * 1'000'000);
}
BENCHMARK(BM_WriteLas)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
