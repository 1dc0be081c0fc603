// Quorvel: a prepared raster as mapping reads it: the cell arrays of every fragment, found once
// per run, and the cell under a point.
#pragma once

#include "quorvel/raster/detail/raster.hpp"

#include <cstdint>
#include <string>
#include <vector>

namespace Quorvel::detail {

// The prepared cell arrays of one raster fragment; `missing` names the first absent one.
struct PreparedCells {
  StrongPtr<MemArray<3, unsigned char>> types;
  HeightCells heights;
  StrongPtr<MemArray<3, Vantor::PhysicalSpace::vector>> planes;
  StrongPtr<MemArray<3, float>> maxGround, minGround;
  Tressel::MultiIndex<3> extents;
  std::string missing;
};

// Where a point falls: a raster fragment number and a linear cell index inside it; Unmapped for
// a point the mapping leaves alone, NoFragment for one inside the raster's box without a cell.
struct CellPlace {
  static constexpr std::uint32_t Unmapped = 0xFFFFFFFFu;
  static constexpr std::uint32_t NoFragment = 0xFFFFFFFEu;
  std::uint32_t fragment = Unmapped;
  std::uint32_t cell = 0;
};

class RasterCells {
public:
  // Collects the arrays of every fragment of the raster. The fragment counts per axis come from
  // the raster's uniform layout, else from its box, cell sizes and fragment sizes.
  RasterCells(const Grid& raster, const MapRasterOnPointCloudParameterBox& box);

  // Fragments per axis.
  const Tressel::MultiIndex<3>& fragments() const { return counts_; }
  const PreparedCells& operator[](std::uint32_t fragment) const { return cells_[fragment]; }

  // The cell under p: p shifted by half a cell must lie in the raster's box in x and y (else
  // false, place untouched); an axis of cell size 0 or less is not indexed. A cell outside every
  // fragment's arrays gives fragment NoFragment.
  bool locate(const Vantor::PhysicalSpace::point& p, CellPlace& place) const;

private:
  const MapRasterOnPointCloudParameterBox& box_;
  Vantor::BoundingBox bbox_;
  Tressel::MultiIndex<3> counts_;
  std::vector<PreparedCells> cells_;
};

} // namespace Quorvel::detail
