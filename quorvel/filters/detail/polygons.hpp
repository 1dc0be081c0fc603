// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: a point-in-polygon index: a grid of cells over a polygon's box, each known to lie
// wholly inside, wholly outside or to be crossed by edges (listed with the cell).
#pragma once

#include "quorvel/filters/filters.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace Quorvel::detail {

// Whether x-y points lie inside one polygon (even-odd over all its rings) or on one of its edges.
// Each cell has a reference point, off its centre by odd fractions so that lattice-like data
// does not put it on an edge, whose parity (of the crossings of its rightward ray) is computed
// once. Most points fall in a cell no edge crosses and take its reference's state; a point in a
// crossed cell walks to the reference, along its row and then along the reference's column,
// flipping the parity at each edge of the cell it meets. An edge is listed in every cell it
// comes within a hair of, so no edge passes through a cell that is not crossed and a point on
// an edge always finds it in its own cell. Read-only after construction: concurrent queries are
// safe.
class PolygonIndex {
public:
  explicit PolygonIndex(const Polygon& polygon);

  // Inside, or on an edge (boundaries are inside).
  bool contains(double x, double y) const;

private:
  // An edge from a to b with its slopes, so that crossings cost a product, not a quotient: dxdy
  // is infinite or NaN for a horizontal edge, dydx for a vertical one, where the straddle tests
  // that go with them are false.
  struct Edge {
    double ax, ay, bx, by, dxdy, dydx;
  };
  // A cell's state: the parity of its reference point, and whether edges cross it.
  enum : std::uint8_t { Inside = 1, Crossed = 2 };

  // Cells of about side by side over the box.
  void layOut(double side);
  // Calls visit(row, column) for every cell the edge comes within a hair of.
  template <class Visit>
  void forEachCell(const Edge& e, Visit&& visit) const;
  void listEdges(const std::vector<Edge>& edges);
  void settleCells(const std::vector<Edge>& edges);
  // The column and row of the cell holding a coordinate, clamped to the grid.
  std::size_t column(double x) const { return cell(x, 0, columns_); }
  std::size_t row(double y) const { return cell(y, 1, rows_); }
  std::size_t cell(double v, int axis, std::size_t count) const {
    const double k = std::floor((v - lo_[axis]) * perStep_[axis]);
    return static_cast<std::size_t>(std::clamp(k, 0.0, static_cast<double>(count - 1)));
  }
  double referenceX(std::size_t column) const {
    return lo_[0] + (static_cast<double>(column) + 0.5372983) * step_[0];
  }
  double referenceY(std::size_t row) const {
    return lo_[1] + (static_cast<double>(row) + 0.4613781) * step_[1];
  }

  double lo_[2] = {0, 0};
  double hi_[2] = {-1, -1};
  double step_[2] = {1, 1}; // cell width and height
  double perStep_[2] = {1, 1};
  double hair_ = 0.0;
  std::size_t columns_ = 1, rows_ = 1;
  std::vector<std::uint8_t> state_;  // per cell, row-major
  std::vector<std::uint32_t> first_; // per cell + 1: where its edges start in edges_
  std::vector<Edge> edges_;          // the crossing edges, cell after cell
};

} // namespace Quorvel::detail
