// SPDX-License-Identifier: BSD-3-Clause
// Raster benchmarks on one thread: preparing a 2000 x 2000 ground raster of 1 m cells (fragments
// of 250 x 250 cells; a tenth of the cells gap-filled, a fiftieth without data), and mapping it
// onto the 1M airborne points (1 km x 1 km) as heights above ground, in random and in scan
// order. The yardstick of the mapping
// is numpy's plain cell lookup and subtraction over the same points (bench/raster_yardstick.py).
#include "airborne_cloud.hpp"

#include "io/las.hpp"
#include "io/raster.hpp"
#include "quorvel/raster/raster.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <omp.h>

namespace {

using Vantor::PhysicalSpace::point;

constexpr std::size_t Cells = 2000, FragmentCells = 250;

template <class T, class F>
void addCells(Tressel::Grid& grid, const char* name, F value) {
  std::vector<T> cells;
  cells.reserve(Cells * Cells);
  for (std::size_t y = 0; y < Cells; ++y)
    for (std::size_t x = 0; x < Cells; ++x)
      cells.push_back(value(x, y));
  Tressel::setUniformCells<T>(grid, name, cells.data(), Cells, Cells, T());
}

Basalt::StrongPtr<Tressel::Grid> groundRaster() {
  Tressel::Bundle bundle;
  const std::size_t n = Cells / FragmentCells;
  auto grid = Tressel::createRegularlyFragmentedGridWithCartesianVertices3D(
      bundle, 0.0, "dtm", {n, n, 1}, {FragmentCells, FragmentCells, 1}, point(5.0e5, 5.4e6, 0),
      Vantor::PhysicalSpace::vector(1, 1, 0));
  addCells<unsigned char>(*grid, "CellType", [](std::size_t x, std::size_t y) {
    const std::size_t k = (x * 7919 + y * 104729) % 100;
    return static_cast<unsigned char>(k < 2 ? 1 : k < 12 ? 4 : 0);
  });
  addCells<float>(*grid, "Height", [](std::size_t x, std::size_t y) {
    return static_cast<float>(200.0 + 0.02 * static_cast<double>(x) +
                              std::sin(static_cast<double>(x * 3 + y)));
  });
  return grid;
}

Quorvel::MapRasterOnPointCloudParameterBox boxFor() {
  Quorvel::MapRasterOnPointCloudParameterBox box;
  box.cellsize = {1, 1, 0};
  box.rastersize = {FragmentCells, FragmentCells, 1};
  return box;
}

void BM_PrepareRaster(benchmark::State& state) {
  omp_set_num_threads(1);
  auto raster = groundRaster();
  auto box = boxFor();
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::prepareRaster(raster, box));
  state.counters["cells/s"] = benchmark::Counter(static_cast<double>(Cells * Cells),
                                                 benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_PrepareRaster)->Unit(benchmark::kMillisecond)->UseRealTime();

// The airborne points in their random order (argument 0), or as a scanner delivers them
// (argument 1): in strips of 20 m along x, each swept in y.
std::vector<point> mappedPoints(bool scanOrder) {
  std::vector<point> xyz = bench::airborneCloud();
  if (scanOrder)
    std::sort(xyz.begin(), xyz.end(), [](const point& a, const point& b) {
      const double sa = std::floor(a.x / 20), sb = std::floor(b.x / 20);
      return sa != sb ? sa < sb : a.y < b.y;
    });
  return xyz;
}

void BM_MapHeights(benchmark::State& state) {
  omp_set_num_threads(2); // the library's loops keep one core for the host: one thread
  auto raster = groundRaster();
  auto box = boxFor();
  Quorvel::prepareRaster(raster, box);
  box.height = true;
  const auto xyz = mappedPoints(state.range(0) == 1);
  auto cloud = Tressel::PointCloudBuilder(xyz)
                   .addField("Classification", std::vector<unsigned char>(xyz.size(), 1))
                   .build(Tressel::sequentialPartition(xyz.size(), 0));
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::mapData(cloud, raster, box));
  state.counters["points/s"] = benchmark::Counter(static_cast<double>(xyz.size()),
                                                  benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_MapHeights)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// A LAS file of the 1M airborne points, a fifth of them ground (class 2), written once.
const std::string& airborneLas() {
  static const std::string path = [] {
    const auto& xyz = bench::airborneCloud();
    std::vector<unsigned char> classes(xyz.size());
    for (std::size_t i = 0; i < classes.size(); ++i)
      classes[i] = i % 5 == 0 ? 2 : 1;
    auto cloud = Tressel::PointCloudBuilder(xyz)
                     .addField("Classification", classes)
                     .build(Tressel::sequentialPartition(xyz.size(), 0));
    const std::string file = std::filesystem::temp_directory_path() / "quorvel-raster-bench.las";
    Quorvel::Las::write(file, *cloud);
    return file;
  }();
  return path;
}

// The yardstick of a ground raster: reading the LAS file, every field.
void BM_ReadLas(benchmark::State& state) {
  for (auto _ : state)
    benchmark::DoNotOptimize(Quorvel::Las::read(airborneLas()));
  state.counters["points/s"] =
      benchmark::Counter(1e6, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_ReadLas)->Unit(benchmark::kMillisecond)->UseRealTime();

// What quorvel dtm does: the positions and classes read, the 1 m ground raster made and written
// as a GeoTIFF.
void BM_GroundRasterFromLas(benchmark::State& state) {
  const std::string out = std::filesystem::temp_directory_path() / "quorvel-raster-bench.tif";
  for (auto _ : state) {
    const auto read = Quorvel::Las::read(airborneLas(), 0, {}, {"Classification"});
    const std::string wkt = Quorvel::Raster::coordinateSystemOf(*read.grid);
    Quorvel::Raster::writeGeoTiff(out, *Quorvel::groundRaster(*read.grid, {}, wkt));
  }
  state.counters["points/s"] =
      benchmark::Counter(1e6, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_GroundRasterFromLas)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
