// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: a transform approximated by checked cubic interpolants over a cloud's extent (see
// detail/approximation.hpp).
#include "quorvel/filters/detail/approximation.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <tuple>

namespace Quorvel::detail {

namespace {

// The cubic Lagrange weights of the nodes 0, 1/3, 2/3, 1 at t.
std::array<double, 4> cubicWeights(double t) {
  const double a = t - 1.0 / 3, b = t - 2.0 / 3, c = t - 1.0;
  return {-4.5 * a * b * c, 13.5 * t * b * c, -13.5 * t * a * c, 4.5 * t * a * b};
}

// The positions of the test points in a cell (fractions of its width and height): every pair
// of 0, 1/6, 1/2, 5/6, 1 but the corners, which are nodes.
constexpr std::array<double, 5> TestSteps{0.0, 1.0 / 6, 0.5, 5.0 / 6, 1.0};
constexpr std::size_t TestCount = 21;
constexpr std::size_t NodeCount = 16;
// Exact transforms a cell costs: its nodes at two heights, its test points at two.
constexpr std::size_t SamplesPerCell = 2 * NodeCount + 2 * TestCount;
constexpr int MaxDepth = 12;

bool corner(double u, double v) {
  return (u == 0.0 || u == 1.0) && (v == 0.0 || v == 1.0);
}

// Sum of the weights w times the node values v, or their common value where they are all equal
// (most slopes: 0 for x and y, 1 for z when heights pass through).
double weighted(const std::array<double, 16>& v, bool constant, const double* w) {
  if (constant)
    return v[0];
  double sum = 0;
  for (std::size_t i = 0; i < NodeCount; ++i)
    sum += w[i] * v[i];
  return sum;
}

// The 16 tensor-product weights at (u, v), row by row.
std::array<double, 16> weightsAt(double u, double v) {
  const auto wu = cubicWeights(u), wv = cubicWeights(v);
  std::array<double, 16> w;
  for (std::size_t j = 0; j < 4; ++j)
    for (std::size_t i = 0; i < 4; ++i)
      w[j * 4 + i] = wv[j] * wu[i];
  return w;
}

} // namespace

ApproximateTransform::ApproximateTransform(const point& lo, const point& hi,
                                           const std::array<double, 3>& tolerance,
                                           std::size_t budget, const PointTransform& transform)
    : tolerance_(tolerance) {
  Cell root;
  root.x0 = lo.x;
  root.y0 = lo.y;
  // A flat extent gets the other side's width (or a unit) so that cells have an area.
  const double side = std::max({hi.x - lo.x, hi.y - lo.y, 0.0});
  root.width = hi.x > lo.x ? hi.x - lo.x : (side > 0 ? side : 1.0);
  root.height = hi.y > lo.y ? hi.y - lo.y : (side > 0 ? side : 1.0);
  z0_ = lo.z;
  z1_ = lo.z + std::max(hi.z - lo.z, 1.0);
  if (!(std::isfinite(root.width) && std::isfinite(root.height) && std::isfinite(z1_)))
    return;
  cells_.push_back(root);
  // Breadth first, so that a spent budget leaves the finest cells exact, not a corner.
  std::deque<std::pair<std::size_t, int>> queue{{0, 0}};
  for (; !queue.empty(); queue.pop_front()) {
    const auto [at, depth] = queue.front();
    if (budget < SamplesPerCell)
      break;
    budget -= SamplesPerCell;
    if (fit(cells_[at], transform) || depth == MaxDepth)
      continue;
    split(at);
    for (int c = 0; c < 4; ++c)
      queue.emplace_back(static_cast<std::size_t>(cells_[at].children + c), depth + 1);
  }
}

// Transforms the cell's nodes and test points exactly, keeps the interpolants and says whether
// every test point is within the tolerance (the cell is then no longer exact).
bool ApproximateTransform::fit(Cell& cell, const PointTransform& transform) const {
  std::vector<double> x, y, z;
  const auto add = [&](double u, double v, double h) {
    x.push_back(cell.x0 + u * cell.width);
    y.push_back(cell.y0 + v * cell.height);
    z.push_back(h);
  };
  const double zMid = 0.5 * (z0_ + z1_);
  for (const double h : {z0_, z1_})
    for (int j = 0; j < 4; ++j)
      for (int i = 0; i < 4; ++i)
        add(i / 3.0, j / 3.0, h);
  for (const double h : {z0_, zMid})
    for (const double v : TestSteps)
      for (const double u : TestSteps)
        if (!corner(u, v))
          add(u, v, h);
  const std::vector<double> inX = x, inY = y, inZ = z;
  if (!transform(x.size(), x.data(), y.data(), z.data()))
    return false;
  for (std::size_t i = 0; i < x.size(); ++i)
    if (!std::isfinite(x[i]) || !std::isfinite(y[i]) || !std::isfinite(z[i]))
      return false;
  const double* out[3] = {x.data(), y.data(), z.data()};
  for (std::size_t k = 0; k < 3; ++k)
    for (std::size_t i = 0; i < NodeCount; ++i) {
      cell.nodes[k][i] = out[k][i];
      cell.nodes[k + 3][i] = (out[k][NodeCount + i] - out[k][i]) / (z1_ - z0_);
    }
  for (std::size_t k = 0; k < 6; ++k)
    cell.constant[k] = std::all_of(cell.nodes[k].begin(), cell.nodes[k].end(),
                                   [&](double v) { return v == cell.nodes[k][0]; });
  cell.heightKept =
      cell.constant[2] && cell.constant[5] && cell.nodes[2][0] == z0_ && cell.nodes[5][0] == 1.0;
  // Half the tolerance at the test points: between them a cubic's error grows by up to a
  // sixteenth over its value at the points a sixth from the nodes.
  for (std::size_t t = 2 * NodeCount; t < x.size(); ++t) {
    const auto w = weightsAt((inX[t] - cell.x0) / cell.width, (inY[t] - cell.y0) / cell.height);
    for (std::size_t k = 0; k < 3; ++k)
      if (!(std::abs(interpolate(cell, w.data(), k, inZ[t]) - out[k][t]) <= 0.5 * tolerance_[k]))
        return false;
  }
  cell.exact = false;
  return true;
}

void ApproximateTransform::split(std::size_t at) {
  const Cell parent = cells_[at];
  cells_[at].children = static_cast<int>(cells_.size());
  for (int c = 0; c < 4; ++c) {
    Cell child;
    child.width = parent.width / 2;
    child.height = parent.height / 2;
    child.x0 = parent.x0 + (c & 1) * child.width;
    child.y0 = parent.y0 + (c >> 1) * child.height;
    cells_.push_back(child);
  }
}

double ApproximateTransform::interpolate(const Cell& cell, const double* w, std::size_t k,
                                         double z) const {
  if (k == 2 && cell.heightKept)
    return z;
  return weighted(cell.nodes[k], cell.constant[k], w) +
         weighted(cell.nodes[k + 3], cell.constant[k + 3], w) * (z - z0_);
}

const ApproximateTransform::Cell* ApproximateTransform::leafOf(double x, double y) const {
  if (cells_.empty())
    return nullptr;
  const Cell* cell = &cells_[0];
  if (!(x >= cell->x0 && x <= cell->x0 + cell->width && y >= cell->y0 &&
        y <= cell->y0 + cell->height))
    return nullptr;
  while (cell->children >= 0) {
    const int right = x >= cell->x0 + cell->width / 2 ? 1 : 0;
    const int up = y >= cell->y0 + cell->height / 2 ? 2 : 0;
    cell = &cells_[static_cast<std::size_t>(cell->children + right + up)];
  }
  return cell;
}

bool ApproximateTransform::apply(std::size_t n, double* x, double* y, double* z,
                                 const PointTransform& exact) const {
  std::vector<std::size_t> left;
  for (std::size_t i = 0; i < n; ++i) {
    const Cell* cell = leafOf(x[i], y[i]);
    if (!cell || cell->exact || !std::isfinite(z[i])) {
      left.push_back(i);
      continue;
    }
    // A point just past a split line by rounding still interpolates well: u and v stay in [0, 1]
    // up to a few ulps.
    const auto w = weightsAt((x[i] - cell->x0) / cell->width, (y[i] - cell->y0) / cell->height);
    x[i] = interpolate(*cell, w.data(), 0, z[i]);
    y[i] = interpolate(*cell, w.data(), 1, z[i]);
    z[i] = interpolate(*cell, w.data(), 2, z[i]);
  }
  if (left.empty())
    return true;
  std::vector<double> lx, ly, lz;
  for (const std::size_t i : left) {
    lx.push_back(x[i]);
    ly.push_back(y[i]);
    lz.push_back(z[i]);
  }
  if (!exact(left.size(), lx.data(), ly.data(), lz.data()))
    return false;
  for (std::size_t k = 0; k < left.size(); ++k)
    std::tie(x[left[k]], y[left[k]], z[left[k]]) = std::tuple(lx[k], ly[k], lz[k]);
  return true;
}

std::size_t ApproximateTransform::interpolatedCells() const {
  std::size_t count = 0;
  for (const Cell& c : cells_)
    count += c.children < 0 && !c.exact;
  return count;
}

std::size_t ApproximateTransform::exactCells() const {
  std::size_t count = 0;
  for (const Cell& c : cells_)
    count += c.children < 0 && c.exact;
  return count;
}

} // namespace Quorvel::detail
