// SPDX-License-Identifier: BSD-3-Clause
// Selection benchmarks, one thread: the indices of the selected elements of 1M random floats in
// [0, 10) with the two-interval range "2:3,5:7" (`selectedIndices`, the whole typed walk), and a
// selection grid keeping half of 1M points with 17 per-point fields (`computeSelection`). Their
// yardsticks are numpy's mask plus nonzero and numpy's gather of the same fields,
// `selection_yardstick.py`, run beside them; the loop `direct` below is the same mask as a plain
// C++ loop, for a ratio inside this program.
#include "quorvel/selection/selection.hpp"
#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>

#include <random>

namespace {

using Vantor::PhysicalSpace::point;

const std::vector<float>& randomFloats() {
  static const std::vector<float> values = [] {
    std::mt19937 random(3);
    std::uniform_real_distribution<float> u(0.0f, 10.0f);
    std::vector<float> out(1'000'000);
    for (float& v : out)
      v = u(random);
    return out;
  }();
  return values;
}

void BM_SelectOverTypesFloats(benchmark::State& state) {
  const auto array = std::make_shared<Tressel::MemArray<1, float>>(
      Tressel::MultiIndex<1>(randomFloats().size()), randomFloats());
  Quorvel::SelectionParameterBox box;
  box.selection = Vantor::MultiRange<double>("2:3,5:7");
  std::size_t selected = 0;
  for (auto _ : state) {
    const auto indices = Quorvel::selectedIndices(array, box);
    selected = indices.size();
    benchmark::DoNotOptimize(indices.data());
  }
  state.counters["selected"] = static_cast<double>(selected);
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(array->size()));
}
BENCHMARK(BM_SelectOverTypesFloats)->Unit(benchmark::kMillisecond);

// The same mask as a direct loop with the bounds written in: what the walk costs above it.
void BM_DirectMaskFloats(benchmark::State& state) {
  const std::vector<float>& values = randomFloats();
  std::vector<std::uint32_t> indices;
  for (auto _ : state) {
    indices.clear();
    for (std::size_t i = 0; i < values.size(); ++i) {
      const double v = values[i];
      if ((v >= 2 && v <= 3) || (v >= 5 && v <= 7))
        indices.push_back(static_cast<std::uint32_t>(i));
    }
    benchmark::DoNotOptimize(indices.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long long>(values.size()));
}
BENCHMARK(BM_DirectMaskFloats)->Unit(benchmark::kMillisecond);

// 1M points with 16 more fields of the LAS kinds (one decides: every other point is class 2).
Basalt::StrongPtr<Tressel::Grid> seventeenFields() {
  const std::size_t n = 1'000'000;
  std::mt19937 random(5);
  std::vector<point> xyz(n);
  for (std::size_t i = 0; i < n; ++i)
    xyz[i] = {1.0 * i, 2.0 * i, static_cast<double>(random() % 1000)};
  Tressel::PointCloudBuilder b(xyz);
  std::vector<unsigned char> classes(n);
  for (std::size_t i = 0; i < n; ++i)
    classes[i] = static_cast<unsigned char>(i % 2 == 0 ? 2 : 1);
  b.addField("Classification", classes);
  for (const char* name : {"ReturnNumber", "NumberOfReturns", "ScanDirectionFlag",
                           "EdgeOfFlightLine", "UserData", "Synthetic", "KeyPoint", "Withheld"})
    b.addField(name, std::vector<unsigned char>(n, 1));
  for (const char* name : {"Intensity", "PointSourceId"})
    b.addField(name, std::vector<unsigned short>(n, 7));
  b.addField("GpsTime", std::vector<double>(n, 1e5));
  b.addField("ScanAngle", std::vector<float>(n, 3));
  b.addField("Planarity", std::vector<float>(n, 0.5f));
  b.addField("Weights", std::vector<float>(n, 1));
  b.addField("NormalVector", std::vector<Vantor::PhysicalSpace::vector>(n, {0, 0, 1}));
  return b.build(Tressel::sequentialPartition(n, 0));
}

void BM_ComputeSelectionHalfOf17Fields(benchmark::State& state) {
  const auto grid = seventeenFields();
  Quorvel::SelectionParameterBox box;
  box.selection = Vantor::MultiRange<double>("2");
  for (auto _ : state) {
    auto selected = Quorvel::computeSelection(grid, box);
    benchmark::DoNotOptimize(selected.get());
  }
  state.SetItemsProcessed(state.iterations() * 1'000'000LL);
}
BENCHMARK(BM_ComputeSelectionHalfOf17Fields)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
