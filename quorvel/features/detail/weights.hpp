// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the reduction weight of one point from its accumulated neighbour list. Shared by the
// fragment loop and the benchmarks.
#pragma once

#include "tarrow/oc_tree_std.hpp"
#include "vantor/physical_space.hpp"

#include <cstddef>
#include <utility>
#include <vector>

namespace Quorvel::detail {

using Vantor::PhysicalSpace::point;
using Vantor::PhysicalSpace::vector;

// The radius of a neighbour search stops growing from this value on (units of the positions).
inline constexpr double LargestWeightRadius = 5.0;
// Points less planar than this lie on no smooth surface and get no weight.
inline constexpr double SmallestPlanarity = 0.001;

// What one fragment's weights are computed from; normals are unit and upward.
struct WeightInputs {
  const point* positions;
  const vector* normals;
  const float* planarity;
  const Tarrow::OcTreeStd<unsigned, point, 3>& tree;
  double radius;
  std::size_t neighbours; // K
};

// A thread's reused lists: the accumulated entries, one query's entries, the merge of both.
struct WeightScratch {
  std::vector<std::pair<double, unsigned>> list, query, merged;
};

// The weight of point i, -1 for no planarity or no neighbour. The search radius doubles while
// fewer than K + 1 entries are found and it is below 5.0; every query adds its entries to the
// same list (a neighbour within several radii is there several times, earlier queries' entries
// first among equal distances), and the first K entries other than i enter the weight.
float weightOfPoint(const WeightInputs& in, std::size_t i, WeightScratch& scratch);

} // namespace Quorvel::detail
