// Quorvel: finding a prepared raster's cells under points.
#include "quorvel/raster/detail/cells.hpp"

#include "tressel/UniformGrid.hpp"

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

RasterCells::RasterCells(const Grid& raster, const MapRasterOnPointCloudParameterBox& box)
    : box_(box) {
  if (box.raster_bbox)
    bbox_ = *box.raster_bbox;
  const auto view = Tressel::uniformGridView(raster);
  counts_ = view ? view->fragments : countsFromBox(bbox_, box);
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

bool RasterCells::locate(const point& p, CellPlace& place) const {
  const point q(p.x + box_.cellsize[0] / 2, p.y + box_.cellsize[1] / 2, p.z + box_.cellsize[2] / 2);
  if (!bbox_.inside(q, Vantor::BoundingBox::PointPlanar))
    return false;
  const double offset[3] = {q.x - bbox_.min().x, q.y - bbox_.min().y, q.z - bbox_.min().z};
  std::uint32_t fragment[3] = {0, 0, 0}, cell[3] = {0, 0, 0};
  for (int a = 0; a < 3; ++a) {
    if (!(box_.cellsize[a] > 0))
      continue;
    const double g = std::floor(offset[a] / box_.cellsize[a]);
    // Below the box in z, or a fragment size of 0: no cell.
    if (!(g >= 0) || g >= 4294967296.0 || box_.rastersize[a] == 0)
      return place.fragment = CellPlace::NoFragment, true;
    const auto global = static_cast<std::uint32_t>(g);
    fragment[a] = static_cast<std::uint32_t>(global / box_.rastersize[a]);
    cell[a] = static_cast<std::uint32_t>(global % box_.rastersize[a]);
  }
  place.fragment = CellPlace::NoFragment;
  if (fragment[0] >= counts_[0] || fragment[1] >= counts_[1] || fragment[2] >= counts_[2])
    return true;
  const std::size_t number = fragment[0] + counts_[0] * (fragment[1] + counts_[1] * fragment[2]);
  const Tressel::MultiIndex<3>& n = cells_[number].extents;
  if (cell[0] >= n[0] || cell[1] >= n[1] || cell[2] >= n[2])
    return true;
  place.fragment = static_cast<std::uint32_t>(number);
  place.cell = static_cast<std::uint32_t>(cell[0] + n[0] * (cell[1] + n[1] * cell[2]));
  return true;
}

} // namespace Quorvel::detail
