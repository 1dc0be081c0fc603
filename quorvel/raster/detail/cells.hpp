// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: a prepared raster as mapping reads it: the cell arrays of every fragment, found once
// per run, and the cell under a point.
#pragma once

#include "quorvel/raster/detail/raster.hpp"

#include <cmath>
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

  // The cell under p: p must lie in a cell of the raster in x and y, from half a cell before
  // the first centre up to (not including) half a cell after the last, so that a raster of one
  // pixel or one row holds its points (else false, place untouched); an axis of cell size 0 or
  // less is not indexed. A cell outside every fragment's arrays gives fragment NoFragment.
  bool locate(const Vantor::PhysicalSpace::point& p, CellPlace& place) const {
    const double q[3] = {p.x + half_[0], p.y + half_[1], p.z + half_[2]};
    if (!covers(0, q[0]) || !covers(1, q[1]))
      return false;
    std::uint32_t fragment[3] = {0, 0, 0}, cell[3] = {0, 0, 0};
    place.fragment = CellPlace::NoFragment;
    for (int a = 0; a < 3; ++a) {
      if (!indexed_[a])
        continue;
      const double g = std::floor((q[a] - min_[a]) / size_[a]);
      // Below the box in z, or a fragment size of 0: no cell.
      if (!(g >= 0) || g >= 4294967296.0 || fragmentCells_[a] == 0)
        return true;
      const auto global = static_cast<std::uint32_t>(g);
      fragment[a] = global / fragmentCells_[a];
      cell[a] = global - fragment[a] * fragmentCells_[a];
    }
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

private:
  // Whether q (a coordinate shifted by half a cell) lies in the cells of axis a.
  bool covers(int a, double q) const {
    return q >= min_[a] && (indexed_[a] ? q < max_[a] + size_[a] : q <= max_[a]);
  }

  double min_[3] = {0, 0, 0}, max_[3] = {-1, -1, -1}; // the box of the cell centres
  double size_[3], half_[3];                          // cell sizes and their halves
  bool indexed_[3];                                   // cell size above 0
  std::uint32_t fragmentCells_[3];                    // rastersize, 0 when it does not fit
  Tressel::MultiIndex<3> counts_;
  std::vector<PreparedCells> cells_;
};

} // namespace Quorvel::detail
