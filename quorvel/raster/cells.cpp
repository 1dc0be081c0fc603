// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: finding a prepared raster's cells under points.
#include "quorvel/raster/detail/cells.hpp"

#include "tressel/uniform_grid.hpp"

#include <cmath>

namespace Quorvel::detail {

using Vantor::PhysicalSpace::vector;

namespace {

// Fragments per axis of a raster without a stored uniform layout: enough fragments of
// rastersize cells to hold the last cell of the box.
Tressel::MultiIndex<3> countsFromBox(const BoundingBox& bbox,
                                     const MapRasterOnPointCloudParameterBox& box) {
  Tressel::MultiIndex<3> counts(1, 1, 1);
  const double extent[3] = {bbox.max().x - bbox.min().x, bbox.max().y - bbox.min().y,
                            bbox.max().z - bbox.min().z};
  for (int a = 0; a < 3; ++a)
    if (box.cellsize[a] > 0 && box.rastersize[a] > 0)
      counts[a] =
          static_cast<std::size_t>(std::floor(extent[a] / box.cellsize[a])) / box.rastersize[a] + 1;
  return counts;
}

PreparedCells preparedCells(const Representation& rep, const FragmentID& id,
                            const std::string& heightName) {
  PreparedCells c;
  auto field = [&](const char* name) { return rep.findField(name); };
  auto positions = field(Tressel::PositionsFieldName);
  auto xyz = positions ? cellArray<point>(*positions, id) : nullptr;
  if (!xyz)
    return c.missing = "!raster", c;
  c.extents = xyz->multiExtents();
  auto heights = rep.findField(heightName);
  c.heights = heights ? HeightCells(*heights, id) : HeightCells();
  auto planes = field(PlaneField);
  c.planes = planes ? cellArray<vector>(*planes, id) : nullptr;
  auto highest = field(MaxGroundField), lowest = field(MinGroundField);
  c.maxGround = highest ? cellArray<float>(*highest, id) : nullptr;
  c.minGround = lowest ? cellArray<float>(*lowest, id) : nullptr;
  auto types = field(CellTypeField);
  c.types = types ? cellArray<unsigned char>(*types, id) : nullptr;
  const std::size_t n = xyz->size();
  if (!c.heights)
    c.missing = "!m_height: " + heightName;
  else if (!c.planes || c.planes->size() != n)
    c.missing = "!m_planar_regression";
  else if (!c.maxGround || !c.minGround || c.maxGround->size() != n || c.minGround->size() != n)
    c.missing = "!m_max_ground || !m_min_ground";
  else if (!c.types || c.types->size() != n)
    c.missing = "!m_rasterclassification";
  return c;
}

} // namespace

RasterCells::RasterCells(const Grid& raster, const MapRasterOnPointCloudParameterBox& box) {
  const BoundingBox bbox = box.raster_bbox ? *box.raster_bbox : BoundingBox();
  if (!bbox.empty())
    for (int a = 0; a < 3; ++a) {
      min_[a] = bbox.min()[a];
      max_[a] = bbox.max()[a];
    }
  for (int a = 0; a < 3; ++a) {
    size_[a] = box.cellsize[static_cast<std::size_t>(a)];
    half_[a] = size_[a] / 2;
    indexed_[a] = size_[a] > 0;
    const std::uint64_t cells = box.rastersize[static_cast<std::size_t>(a)];
    fragmentCells_[a] = cells <= 0xFFFFFFFFu ? static_cast<std::uint32_t>(cells) : 0;
  }
  const auto view = Tressel::uniformGridView(raster);
  counts_ = view ? view->fragments : countsFromBox(bbox, box);
  auto rep = raster.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto positions = rep ? rep->findField(Tressel::PositionsFieldName) : nullptr;
  cells_.resize(counts_.product());
  for (std::size_t k = 0; k < cells_.size(); ++k) {
    auto id =
        positions ? positions->getFragmentIDs().findFragmentID(static_cast<unsigned>(k)) : nullptr;
    if (id)
      cells_[k] = preparedCells(*rep, *id, box.heightfieldname);
    else
      cells_[k].missing = "!raster";
  }
}

} // namespace Quorvel::detail
