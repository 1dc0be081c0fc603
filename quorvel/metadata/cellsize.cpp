// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the voxel-density cell size of points.
#include "quorvel/core/core.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/spatial/spatial.hpp"

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

// Cell sizes of one fragment's points. Voxel keys are counted by sorting, not in a map.
Basalt::ArrayVector<float> cellSizes(const MemArray<1, point>& xyz) {
  const std::size_t n = xyz.size();
  Basalt::ArrayVector<float> out(n, std::numeric_limits<float>::quiet_NaN());
  BoundingBox box;
  for (std::size_t i = 0; i < n; ++i)
    box.expand(xyz[i]); // non-finite points are left out
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
  std::vector<std::pair<std::uint64_t, std::uint32_t>> keyed;
  keyed.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    const point& p = xyz[i];
    if (!p.isFinite())
      continue;
    const auto ix = static_cast<std::uint64_t>(std::floor((p.x - box.min().x) / cx));
    const auto iy = static_cast<std::uint64_t>(std::floor((p.y - box.min().y) / cy));
    const auto iz = static_cast<std::uint64_t>(std::floor((p.z - box.min().z) / cz));
    keyed.emplace_back((iz * ny + iy) * nx + ix, static_cast<std::uint32_t>(i));
  }
  sortByKey(keyed);
  for (std::size_t start = 0; start < keyed.size();) {
    std::size_t end = start;
    while (end < keyed.size() && keyed[end].first == keyed[start].first)
      ++end;
    const float value = static_cast<float>(std::sqrt(volume / static_cast<double>(end - start)));
    for (std::size_t k = start; k < end; ++k)
      out[keyed[k].second] = value;
    start = end;
  }
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
  grid->skeletons().iterate(
      [&](const Tressel::SkeletonID& id, const StrongPtr<Tressel::Skeleton>& skeleton) {
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
        forEachFragment(fragments.size(), maximumThreadsMinusOne(), log, [&](std::size_t k) {
          auto xyz = fragmentArray<point>(*positions, fragments[k]);
          if (!xyz)
            return log.report("ERROR: no m_vertices\n");
          auto sizes = std::make_shared<MemArray<1, float>>(Tressel::MultiIndex<1>(xyz->size()),
                                                            cellSizes(*xyz));
          const std::string description = "CellTensor, RefLevel: " + std::to_string(id.depth()) +
                                          " FidNr #" + std::to_string(fragments[k].id->number());
          StrongPtr<CreativeArrayBase> creator;
          underCriticalSection([&] {
            creator = cellTensor->setPersistentData(sizes, fragments[k].id,
                                                    Basalt::Cache::MemCache(), description);
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
