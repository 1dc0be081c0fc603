// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: least-squares height planes and distances from them.
#include "quorvel/geometry/detail/planes.hpp"
#include "quorvel/geometry/geometry.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace Quorvel {

using Vantor::PhysicalSpace::vector;

namespace {

// Sums of the normal equations about a local origin.
struct PlaneSums {
  double x = 0, y = 0, z = 0, xx = 0, xy = 0, yy = 0, xz = 0, yz = 0;
  double n = 0;

  void add(const point& p, const point& origin) {
    const double dx = p.x - origin.x, dy = p.y - origin.y, dz = p.z - origin.z;
    x += dx;
    y += dy;
    z += dz;
    xx += dx * dx;
    xy += dx * dy;
    yy += dy * dy;
    xz += dx * dz;
    yz += dy * dz;
    n += 1;
  }

  // Solves [xx xy x; xy yy y; x y n] (a, b, c') = (xz, yz, z) by Cramer's rule and shifts c'
  // back to world coordinates.
  bool solve(const point& origin, vector& plane) const {
    auto det3 = [](double a11, double a12, double a13, double a21, double a22, double a23,
                   double a31, double a32, double a33) {
      return a11 * (a22 * a33 - a23 * a32) - a12 * (a21 * a33 - a23 * a31) +
             a13 * (a21 * a32 - a22 * a31);
    };
    const double det = det3(xx, xy, x, xy, yy, y, x, y, n);
    if (!(std::fabs(det) >= 1e-6))
      return false;
    const double a = det3(xz, xy, x, yz, yy, y, z, y, n) / det;
    const double b = det3(xx, xz, x, xy, yz, y, x, z, n) / det;
    const double c = det3(xx, xy, xz, xy, yy, yz, x, y, z) / det;
    plane = vector(a, b, c + origin.z - (a * origin.x + b * origin.y));
    return true;
  }
};

} // namespace

bool planarRegression(const std::vector<point>& points, vector& plane) {
  if (points.size() < 3)
    return false;
  PlaneSums sums;
  for (const point& p : points)
    sums.add(p, points.front());
  return sums.solve(points.front(), plane);
}

bool detail::planarRegressionInPlace(std::vector<point>& points, vector& plane, unsigned percent) {
  const std::size_t n = points.size();
  std::size_t k = static_cast<std::uint32_t>(static_cast<double>(percent * n) * 0.01);
  if (percent != 0 && k == 0)
    k = 1;
  if (k > n || n - k < 3)
    return false;
  if (k > 0)
    std::partial_sort(points.begin(), points.begin() + static_cast<std::ptrdiff_t>(k), points.end(),
                      sortPoint);
  PlaneSums sums;
  for (std::size_t i = k; i < n; ++i)
    sums.add(points[i], points.front());
  return sums.solve(points.front(), plane);
}

bool planarRegression(std::vector<point> points, vector& plane, unsigned percent) {
  return detail::planarRegressionInPlace(points, plane, percent);
}

template <class Index>
bool planarRegression(const std::vector<Index>& indices,
                      const Tressel::MultiArray<1, const point>& positions, vector& plane) {
  const std::uint32_t count = static_cast<std::uint32_t>(indices.size());
  if (count < 3)
    return false;
  const point origin = positions[static_cast<std::size_t>(indices.front())];
  PlaneSums sums;
  for (std::uint32_t i = 0; i < count; ++i)
    sums.add(positions[static_cast<std::size_t>(indices[i])], origin);
  return sums.solve(origin, plane);
}

template bool planarRegression<unsigned long long>(const std::vector<unsigned long long>&,
                                                   const Tressel::MultiArray<1, const point>&,
                                                   vector&);

bool getDistancesToRegressionPlane(const std::vector<point>& points, std::vector<double>& distances,
                                   vector& plane) {
  if (points.size() < 3 || !planarRegression(points, plane))
    return false;
  distances.resize(points.size());
  for (std::size_t i = 0; i < points.size(); ++i)
    distances[i] = computeDistanceOfPointFromPlane(plane, points[i]);
  return true;
}

double computeDistanceOfPointFromPlane(const vector& plane, point p) {
  return (p.z - (plane.x * p.x + plane.y * p.y + plane.z)) /
         std::sqrt(plane.x * plane.x + plane.y * plane.y + 1.0);
}

vector getNormalVectorOfPlane(const vector& plane) {
  return vector(plane.x, plane.y, -1.0);
}

double getHeightFromPlane(const vector& plane, const double x, const double y) {
  return plane.x * x + plane.y * y + plane.z;
}

float computeHeight(const vector& plane, const point& p) {
  if (plane.z < NoPlaneC)
    return static_cast<float>(computeDistanceOfPointFromPlane(plane, p));
  return -1000.0f;
}

bool sortPoint(const point p, const point q) {
  return q.z > p.z;
}

} // namespace Quorvel
