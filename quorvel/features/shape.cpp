// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: planarity, linearity, sphericity and the normal of one point over several scales.
#include "quorvel/features/detail/shape.hpp"

#include "vantor/eigen.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

namespace Quorvel::detail {

namespace {

// Eigenvalues in ascending order and the eigenvector of the smallest.
struct Eigen {
  double l0 = 0, l1 = 0, l2 = 0;
  Vantor::PhysicalSpace::vector smallest{0, 0, 0};
};

// Eigen-decomposes the moments (lower triangle m00, m10, m11, m20, m21, m22). Equal eigenvalues
// keep the solver's order, so the zero matrix gives its first eigenvector.
Eigen solve(const double (&moments)[6]) {
  Vantor::LowerTriangular<3, double> a;
  std::copy(std::begin(moments), std::end(moments), a.values);
  Vantor::Quadratic<3, double> v;
  Vantor::Row<3, double> values;
  Vantor::UnsortedEigenVectors<3, double>(a, v, values, 1e-10);
  // Ascending, equal values in the solver's order: a stable insertion sort of three, which,
  // unlike std::stable_sort, asks for no buffer on every call.
  int order[3] = {0, 1, 2};
  for (int i = 1; i < 3; ++i)
    for (int j = i; j > 0 && values[order[j]] < values[order[j - 1]]; --j)
      std::swap(order[j], order[j - 1]);
  Eigen e;
  e.l0 = values[order[0]];
  e.l1 = values[order[1]];
  e.l2 = values[order[2]];
  e.smallest = {v(0, order[0]), v(1, order[0]), v(2, order[0])};
  return e;
}

// A ratio of eigenvalues over their sum s, 0 when s is almost nothing.
double share(double part, double s) {
  return std::fabs(s) >= 1e-6 ? part / s : 0.0;
}

} // namespace

PointShape shapeOfPoint(const point* positions, const point& p, const SortedNeighbours& neighbours,
                        std::uint32_t maxstep, double step) {
  PointShape out;
  if (maxstep == 0) {
    out.planarity = -1;
    return out;
  }
  const std::size_t n = neighbours.size();
  double sum[6] = {0, 0, 0, 0, 0, 0};
  std::size_t counted = 0, walked = 0, accumulated = 0;
  std::size_t previous = std::numeric_limits<std::size_t>::max();
  double best = -1;
  Eigen kept;
  for (std::uint32_t k = 1; k <= maxstep; ++k) {
    const double limit = static_cast<double>(k) * step;
    while (counted < n && neighbours[counted].first <= limit)
      ++counted;
    if (counted == previous)
      continue; // the neighbourhood of the scale before: the same planarity, which cannot win
    previous = counted;
    // The walk goes on from the scale before, skipping near-duplicates, until counted moments are
    // in: so it reaches past the scale by as many neighbours as it skipped.
    while (accumulated < counted && walked < n) {
      const auto& [squared, j] = neighbours[walked++];
      if (squared < NearDuplicateSquared)
        continue;
      const double dx = positions[j].x - p.x, dy = positions[j].y - p.y, dz = positions[j].z - p.z;
      sum[0] += dx * dx;
      sum[1] += dy * dx;
      sum[2] += dy * dy;
      sum[3] += dz * dx;
      sum[4] += dz * dy;
      sum[5] += dz * dz;
      ++accumulated;
    }
    double moments[6] = {0, 0, 0, 0, 0, 0};
    if (accumulated > 0) {
      const double inverse = 1.0 / static_cast<double>(accumulated);
      for (int c = 0; c < 6; ++c)
        moments[c] = sum[c] * inverse;
    }
    const Eigen e = solve(moments);
    const double planarity = share(2 * (e.l1 - e.l0), e.l0 + e.l1 + e.l2);
    if (planarity > best) {
      best = planarity;
      kept = e;
    }
  }
  const double s = kept.l0 + kept.l1 + kept.l2;
  out.planarity = static_cast<float>(best);
  out.linearity = static_cast<float>(share(kept.l2 - kept.l1, s));
  out.sphericity = static_cast<float>(share(3 * kept.l0, s));
  Vantor::PhysicalSpace::vector normal = kept.smallest;
  if (normal.z < 0)
    normal = {-normal.x, -normal.y, -normal.z};
  const double length2 = normal.x * normal.x + normal.y * normal.y + normal.z * normal.z;
  if (length2 > 0) {
    const double length = std::sqrt(length2);
    normal = {normal.x / length, normal.y / length, normal.z / length};
  }
  out.normal = normal;
  return out;
}

} // namespace Quorvel::detail
