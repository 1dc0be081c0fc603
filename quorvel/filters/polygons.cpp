// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: point-in-polygon through a grid of cells over each polygon's box.
#include "quorvel/filters/detail/polygons.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Quorvel {

namespace detail {

namespace {

// About this many cells per edge: fine enough that most cells of even a spiky polygon are
// crossed by no edge, while the grid stays a few bytes per cell.
constexpr double CellsPerEdge = 64.0;
constexpr double MostCells = 1 << 22;
// Edges listed in cells (32 bytes each): at most this many, or so many per edge.
constexpr double MostListed = 1 << 21;
constexpr double ListedPerEdge = 8.0;

// Cells of side length extent / count, count between 1 and the cap.
std::size_t cellCount(double extent, double side, double cap) {
  if (!(extent > 0) || !(side > 0))
    return 1;
  return static_cast<std::size_t>(std::clamp(std::ceil(extent / side), 1.0, cap));
}

} // namespace

PolygonIndex::PolygonIndex(const Polygon& polygon) {
  std::vector<Edge> edges;
  constexpr double Inf = std::numeric_limits<double>::infinity();
  double lo[2] = {Inf, Inf}, hi[2] = {-Inf, -Inf};
  for (const Ring& ring : polygon.rings)
    for (std::size_t k = 0; k < ring.size(); ++k) {
      const auto& a = ring[k];
      const auto& b = ring[(k + 1) % ring.size()];
      if (a == b)
        continue;
      edges.push_back(
          {a[0], a[1], b[0], b[1], (b[0] - a[0]) / (b[1] - a[1]), (b[1] - a[1]) / (b[0] - a[0])});
      for (int d = 0; d < 2; ++d) {
        lo[d] = std::min({lo[d], a[static_cast<std::size_t>(d)], b[static_cast<std::size_t>(d)]});
        hi[d] = std::max({hi[d], a[static_cast<std::size_t>(d)], b[static_cast<std::size_t>(d)]});
      }
    }
  if (edges.empty())
    return; // lo_ above hi_: nothing is inside
  std::copy(lo, lo + 2, lo_);
  std::copy(hi, hi + 2, hi_);
  const double width = hi_[0] - lo_[0], height = hi_[1] - lo_[1];
  // Within this of a cell, an edge counts as crossing it: well above the rounding of the
  // coordinates and of the cell arithmetic, far below any distance that matters.
  const double magnitude = std::max(
      {std::abs(lo_[0]), std::abs(lo_[1]), std::abs(hi_[0]), std::abs(hi_[1]), width, height});
  hair_ = magnitude * 1e-12 + std::max(width, height) * 1e-9;
  const double cells = std::min(CellsPerEdge * static_cast<double>(edges.size()), MostCells);
  const double area = width * height;
  double side = area > 0 ? std::sqrt(area / cells) : std::max(width, height) / cells;
  // Long edges over fine cells would be listed in very many cells (a star of long thin spikes):
  // the grid is made coarser until the lists fit their budget.
  const double budget = std::max(MostListed, ListedPerEdge * static_cast<double>(edges.size()));
  for (;; side *= 2) {
    layOut(side);
    double listed = 0;
    for (const Edge& e : edges)
      forEachCell(e, [&](std::size_t, std::size_t) { ++listed; });
    if (listed <= budget || columns_ * rows_ == 1)
      break;
  }
  listEdges(edges);
  settleCells(edges);
}

void PolygonIndex::layOut(double side) {
  const double width = hi_[0] - lo_[0], height = hi_[1] - lo_[1];
  columns_ = cellCount(width, side, std::sqrt(MostCells));
  rows_ = cellCount(height, side, std::sqrt(MostCells));
  step_[0] = width > 0 ? width / static_cast<double>(columns_) : 1.0;
  step_[1] = height > 0 ? height / static_cast<double>(rows_) : 1.0;
  perStep_[0] = 1.0 / step_[0];
  perStep_[1] = 1.0 / step_[1];
}

template <class Visit>
void PolygonIndex::forEachCell(const Edge& e, Visit&& visit) const {
  const double bottom = std::min(e.ay, e.by), top = std::max(e.ay, e.by);
  for (std::size_t r = row(bottom - hair_), last = row(top + hair_); r <= last; ++r) {
    // The part of the edge within the row (and a hair around it).
    const double y0 = std::max(bottom, lo_[1] + static_cast<double>(r) * step_[1] - hair_);
    const double y1 = std::min(top, lo_[1] + static_cast<double>(r + 1) * step_[1] + hair_);
    double x0 = std::min(e.ax, e.bx), x1 = std::max(e.ax, e.bx);
    if (e.ay != e.by) {
      const double at0 = e.ax + (y0 - e.ay) * (e.bx - e.ax) / (e.by - e.ay);
      const double at1 = e.ax + (y1 - e.ay) * (e.bx - e.ax) / (e.by - e.ay);
      x0 = std::max(x0, std::min(at0, at1));
      x1 = std::min(x1, std::max(at0, at1));
    }
    for (std::size_t c = column(x0 - hair_), end = column(x1 + hair_); c <= end; ++c)
      visit(r, c);
  }
}

void PolygonIndex::listEdges(const std::vector<Edge>& edges) {
  const std::size_t cells = columns_ * rows_;
  first_.assign(cells + 1, 0);
  for (const Edge& e : edges)
    forEachCell(e, [&](std::size_t r, std::size_t c) { ++first_[r * columns_ + c + 1]; });
  for (std::size_t k = 0; k < cells; ++k)
    first_[k + 1] += first_[k];
  edges_.resize(first_[cells]);
  std::vector<std::uint32_t> at(first_.begin(), first_.end() - 1);
  for (const Edge& e : edges)
    forEachCell(e, [&](std::size_t r, std::size_t c) { edges_[at[r * columns_ + c]++] = e; });
  state_.assign(cells, 0);
  for (std::size_t k = 0; k < cells; ++k)
    if (first_[k + 1] > first_[k])
      state_[k] = Crossed;
}

// Each cell's reference point: the parity of the crossings of the rightward ray from it, taken
// from the crossings of the horizontal line through the references of its row. A cell that no
// edge crosses has the state of its reference; a crossed one keeps the parity in its low bit.
void PolygonIndex::settleCells(const std::vector<Edge>& edges) {
  // The edges each row's line may cross: those whose y extent meets the row.
  std::vector<std::vector<const Edge*>> byRow(rows_);
  for (const Edge& e : edges)
    for (std::size_t r = row(std::min(e.ay, e.by)), last = row(std::max(e.ay, e.by)); r <= last;
         ++r)
      byRow[r].push_back(&e);
  std::vector<double> crossings;
  for (std::size_t r = 0; r < rows_; ++r) {
    const double y = referenceY(r);
    crossings.clear();
    for (const Edge* e : byRow[r])
      if ((e->ay > y) != (e->by > y))
        crossings.push_back(e->ax + (y - e->ay) * e->dxdy);
    std::sort(crossings.begin(), crossings.end());
    for (std::size_t c = 0; c < columns_; ++c) {
      const double x = referenceX(c);
      const auto right = crossings.end() - std::upper_bound(crossings.begin(), crossings.end(), x);
      state_[r * columns_ + c] |= static_cast<std::uint8_t>(right % 2);
    }
  }
}

bool PolygonIndex::contains(double x, double y) const {
  if (!(x >= lo_[0] && x <= hi_[0] && y >= lo_[1] && y <= hi_[1]))
    return false;
  const std::size_t c = column(x), r = row(y), cell = r * columns_ + c;
  bool inside = state_[cell] & Inside;
  if (!(state_[cell] & Crossed))
    return inside;
  // From the point along its row to the reference's x, then along that column to the
  // reference: each edge met flips the parity. The rules for vertices match the ray's, which
  // counts an edge when one end is above y and the other not, and a crossing strictly right.
  const double rx = referenceX(c), ry = referenceY(r);
  const double xFrom = std::min(x, rx), xTo = std::max(x, rx);
  const double yFrom = std::min(y, ry), yTo = std::max(y, ry);
  for (std::uint32_t k = first_[cell]; k < first_[cell + 1]; ++k) {
    const Edge& e = edges_[k];
    const double cross = (e.bx - e.ax) * (y - e.ay) - (e.by - e.ay) * (x - e.ax);
    if (cross == 0.0 && x >= std::min(e.ax, e.bx) && x <= std::max(e.ax, e.bx) &&
        y >= std::min(e.ay, e.by) && y <= std::max(e.ay, e.by))
      return true;
    // Without branches, which the data would make unpredictable. An edge parallel to a leg
    // gives an infinite or NaN quotient, but then its straddle test is false.
    const double atX = e.ax + (y - e.ay) * e.dxdy;
    const double atY = e.ay + (rx - e.ax) * e.dydx;
    inside ^= ((e.ay > y) != (e.by > y)) & (xFrom < atX) & (atX <= xTo);
    inside ^= ((e.ax > rx) != (e.bx > rx)) & (yFrom < atY) & (atY <= yTo);
  }
  return inside;
}

} // namespace detail

std::vector<std::uint8_t> insidePolygons(const std::vector<Polygon>& polygons, std::size_t n,
                                         const double* x, const double* y) {
  const std::vector<detail::PolygonIndex> indexes(polygons.begin(), polygons.end());
  std::vector<std::uint8_t> inside(n, 0);
  for (std::size_t i = 0; i < n; ++i)
    inside[i] = std::any_of(indexes.begin(), indexes.end(),
                            [&](const detail::PolygonIndex& p) { return p.contains(x[i], y[i]); });
  return inside;
}

} // namespace Quorvel
