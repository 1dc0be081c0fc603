// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: raster preparation. Every ground cell (type 0 or 4) gets the plane through the ground
// cells of its 3 x 3 block and the block's highest and lowest ground. A block never reaches into
// the next fragment, so fragments are prepared independently, in parallel.
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/raster/detail/raster.hpp"

#include "tressel/bundle.hpp"

#include <cmath>
#include <limits>

namespace Quorvel {

using Vantor::PhysicalSpace::vector;

namespace detail {

bool heightField(const Field& field) {
  const auto* type = field.getElementType();
  return field.getRank() == 3 &&
         (type == &Tressel::TresselType<float>() || type == &Tressel::TresselType<double>());
}

} // namespace detail

namespace {

using namespace detail;

// The three result fields on the raster's representation.
struct PreparedFields {
  StrongPtr<Field> plane, maxGround, minGround;
};

// Creates "PlanarRegression" on the raster; reports when there is no raster to put it on.
StrongPtr<Field> createPlanarRegressionField(const StrongPtr<Grid>& raster, Messages& log) {
  auto rep =
      raster ? raster->getCartesianRepresentation(Tressel::StandardCartesianChart3D) : nullptr;
  if (!rep) {
    log.report("CreatePlanarRegressionField, ERROR: no raster");
    return nullptr;
  }
  return rep->makeField(rep->makeFieldID(PlaneField), rep->fragmentLayout(),
                        &Tressel::TresselType<vector>(), 3);
}

template <class T>
StrongPtr<Field> cellField(const StrongPtr<Grid>& raster, const char* name) {
  auto rep = raster->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  return rep->makeField(rep->makeFieldID(name), rep->fragmentLayout(), &Tressel::TresselType<T>(),
                        3);
}

// The inputs of one fragment, checked.
struct FragmentCells {
  StrongPtr<MemArray<3, point>> positions;
  StrongPtr<MemArray<3, unsigned char>> types;
  HeightCells heights;
};

// The plane, maximum and minimum of one cell from its 3 x 3 block inside the fragment.
void prepareCell(const FragmentCells& in, std::size_t x, std::size_t y, std::size_t z,
                 const MapRasterOnPointCloudParameterBox& box, std::vector<point>& block,
                 vector& plane, float& maxGround, float& minGround) {
  const auto& n = in.positions->multiExtents();
  const point& origin = (*in.positions)[0];
  const unsigned char* types = in.types->data();
  float highest = -1e6f, lowest = 1e6f;
  block.clear();
  for (long long i = static_cast<long long>(x) - 1; i <= static_cast<long long>(x) + 1; ++i)
    for (long long j = static_cast<long long>(y) - 1; j <= static_cast<long long>(y) + 1; ++j) {
      if (i < 0 || j < 0 || i >= static_cast<long long>(n[0]) || j >= static_cast<long long>(n[1]))
        continue;
      const std::size_t k =
          static_cast<std::size_t>(i) + n[0] * (static_cast<std::size_t>(j) + n[1] * z);
      const double h = in.heights[k];
      // A height that is not a number would make every plane of the block unusable.
      if (!groundCell(types[k]) || !std::isfinite(h))
        continue;
      block.emplace_back(origin.x + static_cast<double>(i) * box.cellsize[0],
                         origin.y + static_cast<double>(j) * box.cellsize[1], h);
      highest = std::max(highest, static_cast<float>(h));
      lowest = std::min(lowest, static_cast<float>(h));
    }
  planarRegression(block, plane);
  maxGround = highest;
  minGround = lowest;
}

// Prepares one fragment; its result arrays are attached inside the critical section.
void prepareFragment(const Field& positions, const Field& types, const Field& heights,
                     const PreparedFields& out, const StrongPtr<FragmentID>& id,
                     const MapRasterOnPointCloudParameterBox& box, Messages& log) {
  FragmentCells in{cellArray<point>(positions, *id), cellArray<unsigned char>(types, *id),
                   HeightCells(heights, *id)};
  if (!in.positions)
    return log.report("ERROR, no m_raster");
  if (!in.types || in.types->size() != in.positions->size())
    return log.report("ERROR, no m_celltype");
  if (!in.heights)
    return log.report("ERROR, no m_height");
  const auto& n = in.positions->multiExtents();
  const std::size_t count = in.positions->size();
  auto planes = MemArray<3, vector>::filled(n, vector(0.0, 0.0, NoPlaneC));
  const float nan = std::numeric_limits<float>::quiet_NaN();
  auto highest = MemArray<3, float>::filled(n, nan);
  auto lowest = MemArray<3, float>::filled(n, nan);
  std::vector<point> block;
  block.reserve(9);
  const unsigned char* cellTypes = in.types->data();
  for (std::size_t k = 0; k < count; ++k) {
    if (!groundCell(cellTypes[k]))
      continue;
    prepareCell(in, k % n[0], (k / n[0]) % n[1], k / (n[0] * n[1]), box, block, (*planes)[k],
                (*highest)[k], (*lowest)[k]);
  }
  underCriticalSection([&] {
    out.plane->setPersistentData(planes, id);
    out.maxGround->setPersistentData(highest, id);
    out.minGround->setPersistentData(lowest, id);
  });
}

// The raster of the file: the first grid of the first slice; empty after reporting.
StrongPtr<Grid> loadRaster(const std::string& fileName, Messages& log) {
  Tressel::Bundle bundle;
  const bool bound = bundle.bindTo(fileName);
  const auto slices = bundle.slices();
  if (!bound || slices.empty()) {
    log.report("prepareRaster, ERROR: no file " + fileName + " found");
    if (!bundle.lastError().empty())
      log.report(bundle.lastError());
    return nullptr;
  }
  const auto names = slices.front()->gridNames();
  if (names.empty()) {
    log.report("prepareRaster, ERROR: no grids in file " + fileName + " found");
    return nullptr;
  }
  // Which of several rasters was meant is not this reader's guess: a bundle of one is needed.
  if (const auto grids = bundle.getGridIdentifiers().size(); grids > 1) {
    log.report("prepareRaster, ERROR: " + fileName + " holds " + std::to_string(grids) +
               " grids; a raster bundle of one grid is needed");
    return nullptr;
  }
  auto raster = (*slices.front())[names.front()];
  if (!raster)
    log.report("prepareRaster, ERROR: no grid found");
  return raster;
}

} // namespace

bool prepareRaster(const std::string& fileName, StrongPtr<Grid>& raster,
                   MapRasterOnPointCloudParameterBox& box) {
  Messages log(RasterTag);
  raster = loadRaster(fileName, log);
  return raster && prepareRaster(raster, box);
}

bool prepareRaster(const StrongPtr<Grid>& raster, MapRasterOnPointCloudParameterBox& box) {
  Messages log(RasterTag);
  if (!raster)
    return log.report("prepareRaster, ERROR: no grid found"), false;
  auto rep = raster->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto positions = rep ? rep->findField(Tressel::PositionsFieldName) : nullptr;
  if (!positions || positions->getRank() != 3)
    return log.report("prepareRaster, ERROR: no f_raster found"), false;
  auto types = rep->findField(CellTypeField);
  if (!types || types->getElementType() != &Tressel::TresselType<unsigned char>())
    return log.report("prepareRaster, ERROR: no f_celltype found"), false;
  auto heights = rep->findField(box.heightfieldname);
  if (!heights || !heightField(*heights))
    return log.report("ERROR: no f_height found"), false;

  StrongPtr<BoundingBox> bbox;
  if (!Tressel::expandBoundingBox(bbox, *positions) || !bbox || bbox->empty())
    return log.report("ERROR, no raster_bbox"), false;
  box.raster_bbox = bbox;
  Basalt::Console() << "raster bbox: " << cornersText(*bbox);

  const PreparedFields out{createPlanarRegressionField(raster, log),
                           cellField<float>(raster, MaxGroundField),
                           cellField<float>(raster, MinGroundField)};
  if (!out.plane || !out.maxGround || !out.minGround)
    return log.report("ERROR: the raster holds prepared fields of other types"), false;
  const auto fragments = fragmentsOf(*positions);
  forEachFragment(fragments.size(), maximumThreadsMinusOne(), log, [&](std::size_t k) {
    prepareFragment(*positions, *types, *heights, out, fragments[k].id, box, log);
  });
  Basalt::Console() << "PlanarRegressionAndMaxGround - finished";
  return true;
}

} // namespace Quorvel
