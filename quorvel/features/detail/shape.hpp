// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the shape of one point's neighbourhood over several scales, from its neighbours in
// distance order. Shared by the fragment loop and the benchmarks.
#pragma once

#include "vantor/physical_space.hpp"

#include <cstdint>
#include <utility>
#include <vector>

namespace Quorvel::detail {

using Vantor::PhysicalSpace::point;

// Neighbours as (squared distance, point index), nearest first, equal distances in tree order.
using SortedNeighbours = std::vector<std::pair<double, unsigned>>;

// Neighbours closer than this squared distance (0.01 in distance, the point itself included) are
// counted in a scale but enter no moment: they would only pull the moments towards zero.
inline constexpr double NearDuplicateSquared = 0.0001;

struct PointShape {
  float planarity = 0;
  float linearity = 0;
  float sphericity = 0;
  Vantor::PhysicalSpace::vector normal{0, 0, 0};
};

// The most planar of the scales k = 1 .. maxstep (the smallest on ties): scale k counts the n_k
// neighbours with squared distance <= k * step and takes the moments about p of the first n_k
// neighbours beyond the near-duplicates. maxstep 0 gives planarity -1 and zeros. Moments grow
// from one scale to the next, and a scale with the count of the previous one is the same
// neighbourhood, so it is not solved again.
PointShape shapeOfPoint(const point* positions, const point& p, const SortedNeighbours& neighbours,
                        std::uint32_t maxstep, double step);

} // namespace Quorvel::detail
