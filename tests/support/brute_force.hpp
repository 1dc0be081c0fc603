// SPDX-License-Identifier: BSD-3-Clause
// Brute-force neighbourhoods, the oracle of the tests of the trees and of the algorithms that
// query them: every candidate is measured, none is pruned. The rules are those of spatial/:
// the radius is inclusive (a point at exactly the radius is a neighbour) and equally near
// points keep the candidates' order in lists, and the smallest index is the nearest of equals.
#pragma once

#include "vantor/physical_space.hpp"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace BruteForce {

using Vantor::PhysicalSpace::point;

// A neighbour: its squared distance from the query and its index.
using Neighbour = std::pair<double, std::size_t>;

// Squared distance over the first `dimensions` axes: 2 measures in x and y only, 3 in space.
inline double squaredDistance(const point& a, const point& b, int dimensions = 3) {
  double sum = 0;
  for (int k = 0; k < dimensions; ++k)
    sum += (a[k] - b[k]) * (a[k] - b[k]);
  return sum;
}

// The indices from begin up to (not including) end: every point of a fragment as candidates.
inline std::vector<std::size_t> indices(std::size_t begin, std::size_t end) {
  std::vector<std::size_t> out;
  for (std::size_t i = begin; i < end; ++i)
    out.push_back(i);
  return out;
}

// The indices below n for which accept(index) holds.
template <class Accept>
std::vector<std::size_t> indicesWhere(std::size_t n, Accept accept) {
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < n; ++i)
    if (accept(i))
      out.push_back(i);
  return out;
}

// The candidates (indices into xyz) within the squared radius of q, in the candidates' order.
template <class Indices>
std::vector<Neighbour> within(const std::vector<point>& xyz, const point& q, double squaredRadius,
                              int dimensions, const Indices& candidates) {
  std::vector<Neighbour> out;
  for (const std::size_t j : candidates)
    if (const double d2 = squaredDistance(xyz[j], q, dimensions); d2 <= squaredRadius)
      out.emplace_back(d2, j);
  return out;
}

// The same ascending by squared distance; equally near candidates keep their order.
template <class Indices>
std::vector<Neighbour> sortedWithin(const std::vector<point>& xyz, const point& q,
                                    double squaredRadius, int dimensions,
                                    const Indices& candidates) {
  std::vector<Neighbour> out = within(xyz, q, squaredRadius, dimensions, candidates);
  std::stable_sort(out.begin(), out.end(),
                   [](const Neighbour& a, const Neighbour& b) { return a.first < b.first; });
  return out;
}

// The nearest candidate within the squared radius (the smallest index of equally near ones);
// none when no candidate is that near.
template <class Indices>
std::optional<Neighbour> nearest(const std::vector<point>& xyz, const point& q,
                                 double squaredRadius, int dimensions, const Indices& candidates) {
  std::optional<Neighbour> best;
  for (const std::size_t j : candidates)
    if (const double d2 = squaredDistance(xyz[j], q, dimensions);
        d2 <= squaredRadius &&
        (!best || d2 < best->first || (d2 == best->first && j < best->second)))
      best = Neighbour{d2, j};
  return best;
}

} // namespace BruteForce
