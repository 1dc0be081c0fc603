// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the voxel-density cell size of points.
#include "quorvel/core/core.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/spatial/spatial.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <omp.h>

namespace Quorvel {

namespace {

constexpr std::uint64_t MaxVoxelsPerAxis = 65536;

// Voxel count and width along one axis of the given extent: 0.1 wide, unless that takes more
// than 65536 voxels; then 65536 voxels of extent / 65537 (the factor below).
void voxelAxis(double extent, std::uint64_t& count, double& width) {
  const double needed = std::ceil(extent * 10.0) + 1.0;
  if (needed <= static_cast<double>(MaxVoxelsPerAxis)) {
    count = static_cast<std::uint64_t>(needed);
    width = 0.1;
  } else {
    count = MaxVoxelsPerAxis;
    width = extent * 1.5258556235409006e-5;
  }
}

// The voxel key of every finite point with its index, in point order, packed on the threads.
template <class KeyOf>
KeyedPoints keyedPoints(const MemArray<1, point>& xyz, int threads, const KeyOf& keyOf) {
  KeyedPoints keyed;
  packInBlocks(
      xyz.size(), threads, [&](std::size_t i) { return xyz[i].isFinite(); },
      [&](std::size_t count) { keyed.resize(count); },
      [&](std::size_t i, std::size_t at) {
        keyed[at] = {keyOf(xyz[i]), static_cast<std::uint32_t>(i)};
      });
  return keyed;
}

// Gives every point of a run of equal keys the value of the run's length. Each block of the
// sorted keys takes the runs that begin in it, wherever they end.
template <class ValueOf>
void valuesOfRuns(const KeyedPoints& keyed, int threads, const ValueOf& valueOf,
                  Basalt::ArrayVector<float>& out) {
  inStaticBlocks(keyed.size(), threads, [&](std::size_t start, std::size_t last) {
    while (start > 0 && start < last && keyed[start].first == keyed[start - 1].first)
      ++start;
    while (start < last) {
      std::size_t end = start;
      while (end < keyed.size() && keyed[end].first == keyed[start].first)
        ++end;
      const float value = valueOf(end - start);
      for (std::size_t j = start; j < end; ++j)
        out[keyed[j].second] = value;
      start = end;
    }
  });
}

// Cell sizes of one fragment's points, on `threads` threads. Voxel keys are counted by sorting,
// not in a map.
Basalt::ArrayVector<float> cellSizes(const MemArray<1, point>& xyz, int threads) {
  Basalt::ArrayVector<float> out(xyz.size(), std::numeric_limits<float>::quiet_NaN());
  const BoundingBox box = BoundingBox::of(xyz.data(), xyz.size(), threads);
  if (box.empty())
    return out;
  const auto extent = box.extent();
  std::uint64_t nx, ny, nz;
  double cx, cy, cz;
  voxelAxis(extent.x, nx, cx);
  voxelAxis(extent.y, ny, cy);
  voxelAxis(extent.z, nz, cz);
  const double volume = cx * cy * cz;
  // With at most 65537 cells per axis (a point on the far face), the key stays below 2^49.
  auto keyed = keyedPoints(xyz, threads, [&](const point& p) {
    const auto ix = static_cast<std::uint64_t>(std::floor((p.x - box.min().x) / cx));
    const auto iy = static_cast<std::uint64_t>(std::floor((p.y - box.min().y) / cy));
    const auto iz = static_cast<std::uint64_t>(std::floor((p.z - box.min().z) / cz));
    return (iz * ny + iy) * nx + ix;
  });
  sortByKey(keyed, threads);
  valuesOfRuns(
      keyed, threads,
      [&](std::size_t count) {
        return static_cast<float>(std::sqrt(volume / static_cast<double>(count)));
      },
      out);
  return out;
}

} // namespace

std::string setCellSize(StrongPtr<Grid> grid, const StrongPtr<Basalt::LoaderProgress>& progress) {
  if (!grid)
    return "No Grid";
  if (!grid->findCartesianChart(Tressel::StandardCartesianChart3D))
    return "setCellSize: ERROR: no chart StandardCartesianChart3D found";

  std::string report;
  std::size_t points = 0, fragmentsDone = 0;
  grid->skeletons().iterate([&](const Tressel::SkeletonID& id,
                                const StrongPtr<Tressel::Skeleton>& skeleton) {
    auto rep = skeleton->getRepresentation(Tressel::StandardCartesianChart3D);
    auto positions = rep ? rep->findField(Tressel::PositionsFieldName) : nullptr;
    if (!positions)
      return true;
    auto cellTensor = outputField<float>(*rep, "CellTensor");
    if (!cellTensor) {
      report += "setCellSize: ERROR: field CellTensor holds another element type\n";
      return true;
    }
    const auto fragments = fragmentsOf(*positions);
    Messages log("setCellSize: ", &report);
    std::size_t counted = 0;
    forEachFragment(fragments.size(), maximumThreadsMinusOne(), log, [&](std::size_t k, int inner) {
      auto xyz = fragmentArray<point>(*positions, fragments[k]);
      if (!xyz)
        return log.report("ERROR: no m_vertices\n");
      auto sizes = std::make_shared<MemArray<1, float>>(Tressel::MultiIndex<1>(xyz->size()),
                                                        cellSizes(*xyz, inner));
      const std::string description = "CellTensor, RefLevel: " + std::to_string(id.depth()) +
                                      " FidNr #" + std::to_string(fragments[k].id->number());
      StrongPtr<CreativeArrayBase> creator;
      underCriticalSection([&] {
        creator = cellTensor->setPersistentData(sizes, fragments[k].id, Basalt::Cache::MemCache(),
                                                description);
        counted += xyz->size();
        ++fragmentsDone;
        if (progress && omp_get_thread_num() == 0)
          progress->progress(static_cast<double>(fragmentsDone) /
                                 static_cast<double>(fragments.size()),
                             "setCellSize");
      });
      // Outside the section above: the attribute setter takes the (non-reentrant) section
      // itself.
      if (creator)
        setCellSizeAttribute(*creator, 1.0);
    });
    points += counted;
    return true;
  });
  return report + "setCellSize: CellTensor for " + std::to_string(points) + " points in " +
         std::to_string(fragmentsDone) + " fragments";
}

bool setCellSizeAttribute(Tressel::CreativeArrayBase& array, double) {
  const auto one = std::make_shared<Basalt::Chunk<double>>(std::initializer_list<double>{1.0});
  underCriticalSection([&] {
    array.attributes().setAttribute("CellSize", one);
    array.touch();
  });
  return true;
}

void setCellSizeAttributeOld(Tressel::CreativeArrayBase& array, double cellSize) {
  array.attributes().setAttribute(
      "CellSize", std::make_shared<Basalt::Chunk<double>>(std::initializer_list<double>{cellSize}));
}

} // namespace Quorvel
