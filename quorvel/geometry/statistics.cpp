// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: weighted statistics of points, the cubic spline kernel and the neighbourhood box.
#include "quorvel/geometry/geometry.hpp"

#include "basalt/console.hpp"

#include <cmath>

namespace Quorvel {

using Vantor::PhysicalSpace::vector;

bool weightedMean(point& result, const std::vector<point>& points,
                  const std::vector<double>& weights) {
  if (points.size() == 1) {
    result = points.front();
    return true;
  }
  if (weights.size() < points.size())
    return false;
  double weightSum = 0.0;
  for (double w : weights)
    weightSum += w;
  vector sum;
  for (std::size_t i = 0; i < points.size(); ++i)
    sum = sum + (points[i] - point()) * weights[i];
  if (!(std::fabs(weightSum) >= 1.0e-6)) {
    Basalt::Console() << "weightedMean(): std::fabs(weightSum) < 1.0e-6";
    return false;
  }
  result = point() + sum * (1.0 / weightSum);
  return true;
}

bool weightedMedian(point& result, const std::vector<point>& points,
                    const std::vector<double>& weights, double tolerance) {
  if (points.size() == 1) {
    result = points.front();
    return true;
  }
  if (!weightedMean(result, points, weights))
    return false;
  if (tolerance >= 1.0)
    return true;
  point m = result;
  for (int round = 0; round < 100; ++round) {
    double fSum = 0.0;
    vector sum;
    for (std::size_t i = 0; i < points.size(); ++i) {
      const double f = weights[i] * std::exp(-(m - points[i]).length());
      fSum += f;
      sum = sum + (points[i] - point()) * f;
    }
    // Far or zero-weighted points can make every kernel weight vanish; keep the estimate then.
    if (!(std::fabs(fSum) > 0.0) || !std::isfinite(fSum))
      return true;
    const point next = point() + sum * (1.0 / fSum);
    result = next;
    if (!((next - m).length() > tolerance))
      break;
    m = next;
  }
  return true;
}

double sphCubic(const double r, const double h) {
  const double q = 2.0 * r / h;
  if (q >= 0.0 && q < 1.0)
    return 1.0 - 1.5 * q * q + 0.75 * q * q * q;
  if (q >= 1.0 && q < 2.0) {
    const double d = 2.0 - q;
    return 0.25 * d * d * d;
  }
  return 0.0;
}

double sphCubic(const double r) {
  return sphCubic(r, 1.0);
}

bool ComputeNeighboursParameterBox::different(const ComputeNeighboursParameterBox& other) const {
  return std::fabs(radius - other.radius) > 0.001 || mode != other.mode ||
         stripwise != other.stripwise;
}

void ComputeNeighboursParameterBox::print() const {
  printFields(*this);
}

} // namespace Quorvel
