// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the square-neighbourhood terrain measures, relative height and share of points below.
// Each compute indexes the fragment's points in a cell grid (detail/square_index.hpp) and answers
// every point's closed x-y square from it; points are visited in the grid's order, so that
// neighbouring squares read neighbouring memory. Both loops run on the box's threads in chunks
// of SearchPointGrain points; every result is written by point index.
#include "quorvel/core/core.hpp"
#include "quorvel/spatial/spatial.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/detail/square_index.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <limits>

namespace Tressel {

namespace {

using Quorvel::point;
using Quorvel::detail::SquareIndex;

// The point that the k-th step of a loop over the index visits, and its position: the entries in
// cell order (their coordinates read from the index, one after the other), then the refused
// points (which are in no square but still ask for their own).
std::size_t visited(const SquareIndex& index, std::size_t k,
                    const MultiArray<1, const point>& positions, point& p) {
  if (k < index.size()) {
    p = point{index.x()[k], index.y()[k], index.z()[k]};
    return index.ids()[k];
  }
  const std::size_t i = index.refused()[k - index.size()];
  p = positions[i];
  return i;
}

std::size_t steps(const SquareIndex& index) {
  return index.size() + index.refused().size();
}

// The steps whose point asks(k) for its square, the first of each position in a cell computing
// and its copies (the same square, the same answer) taking that answer: 10^5 copies of a point
// cost one square instead of 10^5.
template <class Asks>
Quorvel::CopyPlan plannedSteps(const SquareIndex& index, const Asks& asks) {
  constexpr std::size_t Few = 64;
  Quorvel::CopyPlan plan;
  plan.computing.reserve(steps(index));
  const auto positionOf = [&](std::size_t k) {
    return point{index.x()[k], index.y()[k], index.z()[k]};
  };
  const std::vector<std::size_t>& start = index.cellStarts();
  std::vector<std::size_t> cell;
  for (std::size_t c = 0; c + 1 < start.size(); ++c) {
    cell.clear();
    for (std::size_t k = start[c]; k < start[c + 1]; ++k)
      if (asks(k))
        cell.push_back(k);
    Quorvel::separateCopies(cell.data(), cell.data() + cell.size(), Few, positionOf, plan);
  }
  for (std::size_t k = index.size(); k < steps(index); ++k)
    if (asks(k))
      plan.computing.push_back(k);
  return plan;
}

// The point index of step k.
std::size_t pointOf(const SquareIndex& index, std::size_t k) {
  return k < index.size() ? index.ids()[k] : index.refused()[k - index.size()];
}

// Relative heights of the points that `takes` accepts, among those points.
template <class Takes>
void heights(double halfWidth, int threads, const MultiArray<1, float>& result,
             const MultiArray<1, const point>& positions,
             const StrongPtr<Vantor::BoundingBox>& bbox, const Takes& takes) {
  const double h = Quorvel::detail::squareHalfWidthInUse(halfWidth);
  const std::size_t n = result.size();
  const SquareIndex index(positions, bbox.get(), h, takes);
  const Quorvel::CopyPlan plan =
      plannedSteps(index, [&](std::size_t k) { return pointOf(index, k) < n; });
  const auto step = [&](std::size_t at) {
    point p;
    const std::size_t i = visited(index, plan.computing[at], positions, p);
    const double loX = p.x - h, hiX = p.x + h, loY = p.y - h, hiY = p.y + h;
    double lowest = std::numeric_limits<double>::infinity();
    index.runs(loX, hiX, loY, hiY, [&](std::size_t b, std::size_t e) {
      lowest = Quorvel::detail::lowestInSquare(index, b, e, loX, hiX, loY, hiY, lowest);
    });
    // An empty square has no lowest point (and a point's z is never infinite in one).
    result[i] =
        lowest < std::numeric_limits<double>::infinity() ? static_cast<float>(p.z - lowest) : 0.0f;
  };
  Quorvel::forEachPoint(plan.computing.size(), Quorvel::correctedThreadCount(threads),
                        Quorvel::SearchPointGrain, step);
  for (const auto& [copy, first] : plan.copies)
    result[pointOf(index, copy)] = result[pointOf(index, first)];
}

// Shares below of the points that `computes` accepts, among all points.
template <class Computes>
void belows(double halfWidth, int threads, const MultiArray<1, unsigned char>& result,
            const MultiArray<1, const point>& positions, const StrongPtr<Vantor::BoundingBox>& bbox,
            const Computes& computes) {
  const double h = Quorvel::detail::squareHalfWidthInUse(halfWidth);
  const std::size_t n = result.size();
  const SquareIndex index(positions, bbox.get(), h, [](std::size_t) { return true; });
  const Quorvel::CopyPlan plan = plannedSteps(index, [&](std::size_t k) {
    const std::size_t i = pointOf(index, k);
    return i < n && computes(i);
  });
  const auto step = [&](std::size_t at) {
    point p;
    const std::size_t i = visited(index, plan.computing[at], positions, p);
    const double loX = p.x - h, hiX = p.x + h, loY = p.y - h, hiY = p.y + h;
    std::size_t inside = 0, below = 0;
    index.runs(loX, hiX, loY, hiY, [&](std::size_t b, std::size_t e) {
      Quorvel::detail::countInSquare(index, b, e, loX, hiX, loY, hiY, p.z, inside, below);
    });
    result[i] = Quorvel::detail::shareOf(below, inside);
  };
  Quorvel::forEachPoint(plan.computing.size(), Quorvel::correctedThreadCount(threads),
                        Quorvel::SearchPointGrain, step);
  for (const auto& [copy, first] : plan.copies)
    result[pointOf(index, copy)] = result[pointOf(index, first)];
}

} // namespace

bool RelativeHeightBox::compute(const MultiArray<1, float>& result,
                                const MultiArray<1, const point>& positions,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  heights(squareHalfWidth, threads, result, positions, bbox, [](std::size_t) { return true; });
  return true;
}

bool RelativeHeightBox::compute(const MultiArray<1, float>& result,
                                const MultiArray<1, const point>& positions,
                                const MultiArray<1, const unsigned char>& pointClasses,
                                const Vantor::MultiRange<double>& classes,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  heights(squareHalfWidth, threads, result, positions, bbox, [&](std::size_t i) {
    return i < pointClasses.size() &&
           classes.contains(static_cast<double>(pointClasses[i]), Quorvel::RangeTolerance);
  });
  return true;
}

bool RelativeBelowsBox::compute(const MultiArray<1, unsigned char>& result,
                                const MultiArray<1, const point>& positions,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  belows(squareHalfWidth, threads, result, positions, bbox, [](std::size_t) { return true; });
  return true;
}

bool RelativeBelowsBox::compute(const MultiArray<1, unsigned char>& result,
                                const MultiArray<1, const point>& positions,
                                const MultiArray<1, const unsigned char>& pointClasses,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  belows(squareHalfWidth, threads, result, positions, bbox,
         [&](std::size_t i) { return i < pointClasses.size() && pointClasses[i] != 4; });
  return true;
}

} // namespace Tressel
