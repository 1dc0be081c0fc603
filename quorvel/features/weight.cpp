// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the reduction weight of one point.
#include "quorvel/features/detail/weights.hpp"

#include <algorithm>
#include <cmath>

namespace Quorvel::detail {

namespace {

double dot(const vector& a, const vector& b) {
  return a.x * b.x + a.y * b.y + a.z * b.z;
}

// Adds the entries of a new query behind the equal distances already listed, as a multimap
// keyed by squared distance would hold them.
void accumulate(WeightScratch& s) {
  s.merged.clear();
  std::merge(s.list.begin(), s.list.end(), s.query.begin(), s.query.end(),
             std::back_inserter(s.merged),
             [](const auto& a, const auto& b) { return a.first < b.first; });
  std::swap(s.list, s.merged);
}

} // namespace

float weightOfPoint(const WeightInputs& in, std::size_t i, WeightScratch& scratch) {
  const double planarity = in.planarity[i];
  if (!(planarity >= SmallestPlanarity))
    return -1.0f;
  const point& p = in.positions[i];
  double r = in.radius;
  // The weight reads the first K entries other than i: of a leaf of copies, K + 1 entries
  // hold them (i is one at most), so a query lists no more of it and only counts the rest.
  const std::size_t perLeaf = in.neighbours + 1;
  std::size_t found = in.tree.getEuclideanRangeSortedFirst(p, r, perLeaf, scratch.list);
  while (found < in.neighbours + 1 && r < LargestWeightRadius) {
    r *= 2;
    found += in.tree.getEuclideanRangeSortedFirst(p, r, perLeaf, scratch.query);
    accumulate(scratch);
  }
  if (scratch.list.empty())
    return -1.0f;
  const vector& ni = in.normals[i];
  double squares = 0, tangent = 0, turn = 0, mean = 0, change = 0;
  std::size_t taken = 0;
  for (const auto& [squared, j] : scratch.list) {
    if (j == i)
      continue;
    if (taken++ == in.neighbours)
      break;
    const vector d = in.positions[j] - p;
    const vector& nj = in.normals[j];
    const vector dn = ni - nj;
    squares += squared;
    tangent += dot(ni, d) * dot(ni, d);
    turn += dot(dn, dn);
    mean += dot(ni + nj, d) * dot(ni + nj, d);
    change += std::fabs(planarity - static_cast<double>(in.planarity[j]));
  }
  const double k = static_cast<double>(in.neighbours);
  return static_cast<float>((squares / k) * (turn + change) + mean + squares + tangent);
}

} // namespace Quorvel::detail
