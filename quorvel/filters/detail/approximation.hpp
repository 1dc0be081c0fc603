// SPDX-License-Identifier: BSD-3-Clause
// Quorvel filters: a coordinate transform approximated over a cloud's extent by cells of cubic
// interpolants, each checked against exact transforms of extra points and refined where the
// error exceeds a tolerance, as image warpers approximate theirs.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/filters/filters.hpp"

#include <array>
#include <cstddef>
#include <vector>

namespace Quorvel::detail {

// The transform over an x-y area as a quadtree of cells. Each leaf holds, for each output
// coordinate, its values at a 4 x 4 grid of nodes (the cell's corners and thirds) at a base
// height and its change per unit of height, both interpolated by tensor-product cubic
// Lagrange polynomials: the output is linear in the input height, which covers transforms whose
// height passes through unchanged and those that mix it into x and y (geographic to
// geocentric). A cell is accepted when 21 test points (midpoints between nodes, the centre and
// the edges' midpoints) at the base and a middle height interpolate within half the tolerance of
// their exact transforms; otherwise it is split into four, or left to exact transforms when the
// budget of exact transforms is spent. Const after construction: safe for concurrent apply().
class ApproximateTransform {
public:
  // Cells over the x-y extent [lo, hi], heights lo.z to hi.z; tolerance per output coordinate;
  // at most budget exact transforms spent on building (none: every point is transformed exactly).
  ApproximateTransform(const point& lo, const point& hi, const std::array<double, 3>& tolerance,
                       std::size_t budget, const PointTransform& transform);

  // Transforms n points in place: interpolated in accepted cells, the others (outside the
  // extent, non-finite, in cells left exact) through exact; false when exact fails.
  bool apply(std::size_t n, double* x, double* y, double* z, const PointTransform& exact) const;

  // The number of leaves interpolated and of leaves left to exact transforms.
  std::size_t interpolatedCells() const;
  std::size_t exactCells() const;

private:
  struct Cell {
    double x0 = 0, y0 = 0, width = 0, height = 0;
    int children = -1; // index of the first of four (x-y order: lower left, lower right, ...)
    bool exact = true;
    // Values at the nodes, row by row: x, y, z at the base height, then their change per unit.
    std::array<std::array<double, 16>, 6> nodes{};
    // Whether each row of nodes holds one value; whether heights pass through unchanged.
    std::array<bool, 6> constant{};
    bool heightKept = false;
  };

  bool fit(Cell& cell, const PointTransform& transform) const;
  void split(std::size_t at);
  const Cell* leafOf(double x, double y) const;
  // Output coordinate k at input height z from the tensor-product weights w.
  double interpolate(const Cell& cell, const double* w, std::size_t k, double z) const;

  std::vector<Cell> cells_;
  std::array<double, 3> tolerance_;
  double z0_ = 0, z1_ = 1;
};

} // namespace Quorvel::detail
