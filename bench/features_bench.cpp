// SPDX-License-Identifier: BSD-3-Clause
// Shape-factor and reduction-weight benchmarks over one fragment of 1M airborne-like points at
// about 0.35 m spacing (350 m x 350 m; ground on gentle hills with 5 cm of noise and a quarter of
// the points scattered 1 to 15 m above it as vegetation), one thread, each beside a nanoflann
// pass over the same points in the same run: for shape factors (step 0.25, maxstep 4: a 1 m
// query, with normals, linearity and sphericity) a radius search of 1 m of every point; for
// weights (K = 8, radius 0.5) the K + 1 nearest neighbours of every point. ratio = ours /
// nanoflann, tree builds included on both sides.
#include "nanoflann_cloud.hpp"

#include "quorvel/features/features.hpp"
#include "tressel/point_cloud.hpp"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <omp.h>
#include <random>

namespace {

using Vantor::PhysicalSpace::point;
using Vec = Vantor::PhysicalSpace::vector;

const std::vector<point>& featureCloud() {
  static const std::vector<point> xyz = [] {
    std::mt19937_64 random(11);
    std::uniform_real_distribution<double> side(0.0, 350.0), u(0.0, 1.0);
    std::normal_distribution<double> noise(0.0, 0.05);
    std::vector<point> out(1'000'000);
    for (point& p : out) {
      const double x = side(random), y = side(random);
      const double ground = 300 + 8 * std::sin(x / 60) * std::cos(y / 45) + noise(random);
      p = {5.0e5 + x, 5.4e6 + y, u(random) < 0.25 ? ground + 1 + 14 * u(random) : ground};
    }
    return out;
  }();
  return xyz;
}

Basalt::StrongPtr<Tressel::Grid> featureGrid() {
  return Tressel::PointCloudBuilder(featureCloud())
      .build(Tressel::sequentialPartition(featureCloud().size(), 0));
}

// Resident memory of the process in MiB: now ("VmRSS:") or its peak since resetPeak ("VmHWM:").
double residentMiB(const char* which) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(which, 0) == 0)
      return std::stod(line.substr(std::strlen(which))) / 1024.0;
  return 0;
}
void resetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

// nanoflann's tree over the cloud and a sorted radius search of every point; returns the seconds.
double nanoflannRadiusPass(double radius, std::size_t& found) {
  const auto start = std::chrono::steady_clock::now();
  const auto& xyz = featureCloud();
  bench::CloudAdaptor adaptor{xyz};
  bench::KdTree<3> index(3, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
  index.buildIndex();
  std::vector<std::pair<unsigned, double>> matches;
  nanoflann::SearchParams params; // sorted, as the shape factors need their neighbours
  found = 0;
  for (const point& p : xyz) {
    const double q[3] = {p.x, p.y, p.z};
    found += index.radiusSearch(q, radius * radius, matches, params);
  }
  return seconds(start);
}

double nanoflannNearestPass(std::size_t k) {
  const auto start = std::chrono::steady_clock::now();
  const auto& xyz = featureCloud();
  bench::CloudAdaptor adaptor{xyz};
  bench::KdTree<3> index(3, adaptor, nanoflann::KDTreeSingleIndexAdaptorParams(10));
  index.buildIndex();
  std::vector<unsigned> indices(k);
  std::vector<double> squared(k);
  for (const point& p : xyz) {
    const double q[3] = {p.x, p.y, p.z};
    index.knnSearch(q, k, indices.data(), squared.data());
  }
  return seconds(start);
}

void report(benchmark::State& state, double ours, double theirs, const char* name) {
  const double iterations = static_cast<double>(state.iterations());
  state.counters["ours_s"] = ours / iterations;
  state.counters[name] = theirs / iterations;
  state.counters["ratio"] = ours / theirs;
  state.counters["points/s"] = static_cast<double>(featureCloud().size()) * iterations / ours;
  state.counters["positions_MiB"] = 24.0 * static_cast<double>(featureCloud().size()) / 1048576.0;
}

void BM_ShapeFactorsVsNanoflann(benchmark::State& state) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(2); // the library leaves one thread out: one thread works
  double ours = 0, theirs = 0;
  std::size_t found = 0;
  for (auto _ : state) {
    auto grid = featureGrid();
    Quorvel::ShapeFactorComputationParameterBox box; // step 0.25, maxstep 4
    box.normalvector = box.linearity = box.sphericity = true;
    const double before = residentMiB("VmRSS:");
    resetPeak();
    const auto start = std::chrono::steady_clock::now();
    Quorvel::shapeFactorComputation(grid, box, nullptr);
    ours += seconds(start);
    // What the first run adds at its peak (results and working data; later runs reuse the
    // memory the allocator kept), against the cloud's positions.
    if (!state.counters.count("peak_added_MiB"))
      state.counters["peak_added_MiB"] = residentMiB("VmHWM:") - before;
    theirs += nanoflannRadiusPass(1.0, found);
  }
  omp_set_num_threads(saved);
  report(state, ours, theirs, "nanoflann_s");
  state.counters["neighbours"] = static_cast<double>(found) / 1e6;
}
BENCHMARK(BM_ShapeFactorsVsNanoflann)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_ReductionWeightsVsNanoflann(benchmark::State& state) {
  const int saved = omp_get_max_threads();
  omp_set_num_threads(2);
  auto grid = featureGrid();
  Quorvel::ShapeFactorComputationParameterBox shape;
  shape.normalvector = true;
  Quorvel::shapeFactorComputation(grid, shape, nullptr);
  double ours = 0, theirs = 0;
  for (auto _ : state) {
    Quorvel::PointCloudReductionParameterBox box; // K = 8, radius 0.5
    const double before = residentMiB("VmRSS:");
    resetPeak();
    const auto start = std::chrono::steady_clock::now();
    Quorvel::computePointCloudReductionWeights(grid, box);
    ours += seconds(start);
    if (!state.counters.count("peak_added_MiB"))
      state.counters["peak_added_MiB"] = residentMiB("VmHWM:") - before;
    theirs += nanoflannNearestPass(9);
  }
  omp_set_num_threads(saved);
  report(state, ours, theirs, "nanoflann_s");
}
BENCHMARK(BM_ReductionWeightsVsNanoflann)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();
