// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: plane fitting, distances and heights relative to planes, weighted statistics of
// points, the cubic spline kernel and the neighbourhood parameter box.
//
// A plane is a vector (a, b, c) meaning the height plane z = a x + b y + c, never a normal; a c
// of 1e7 or more means "no plane".
#pragma once

#include "quorvel/core/fields.hpp"
#include "tressel/mem_array.hpp"
#include "vantor/eigen.hpp"
#include "vantor/physical_space.hpp"

#include <string>
#include <vector>

namespace Quorvel {

using Vantor::PhysicalSpace::point;

// A plane's c from this value on marks the absence of a plane.
inline constexpr double NoPlaneC = 1e7;

// Least-squares height plane through the points, computed about the first point as local origin
// (so georeferenced coordinates keep their precision) and solved by Cramer's rule. False for
// fewer than 3 points or a determinant below 1e-6 in magnitude (collinear points, all points at
// one x and y); the plane is then left as it was.
bool planarRegression(const std::vector<point>& points, Vantor::PhysicalSpace::vector& plane);

// The same fit without the lowest points: k = percent * n * 0.01 truncated (at least 1 when
// percent is not 0) lowest points are moved to the front in ascending height and left out; the
// local origin is the lowest point. False when fewer than 3 points remain. points is reordered.
bool planarRegression(std::vector<point> points, Vantor::PhysicalSpace::vector& plane,
                      unsigned percent);

// The fit over the points that indices name in positions, in list order; at least 3 indices.
template <class Index>
bool planarRegression(const std::vector<Index>& indices,
                      const Tressel::MultiArray<1, const point>& positions,
                      Vantor::PhysicalSpace::vector& plane);
extern template bool
planarRegression<unsigned long long>(const std::vector<unsigned long long>&,
                                     const Tressel::MultiArray<1, const point>&,
                                     Vantor::PhysicalSpace::vector&);

// Fits the plane and gives every point its signed distance from it. False for fewer than 3
// points or a failed fit.
bool getDistancesToRegressionPlane(const std::vector<point>& points, std::vector<double>& distances,
                                   Vantor::PhysicalSpace::vector& plane);

// Signed perpendicular distance of p from the plane, positive above it.
double computeDistanceOfPointFromPlane(const Vantor::PhysicalSpace::vector& plane, point p);

// The plane's normal (a, b, -1): not normalised, pointing down.
Vantor::PhysicalSpace::vector getNormalVectorOfPlane(const Vantor::PhysicalSpace::vector& plane);

// Height of the plane at (x, y).
double getHeightFromPlane(const Vantor::PhysicalSpace::vector& plane, const double x,
                          const double y);

// Signed distance of p from the plane as float, or -1000 when the plane's c marks no plane.
float computeHeight(const Vantor::PhysicalSpace::vector& plane, const point& p);

// Orders points by ascending height: true when q lies higher than p.
bool sortPoint(const point p, const point q);

// Weighted mean of the points (weight i belongs to point i). A single point is its own mean.
// False, with the line "weightedMean(): std::fabs(weightSum) < 1.0e-6", when the weights sum to
// almost nothing; false also when there are fewer weights than points. result is left unchanged
// on failure.
bool weightedMean(point& result, const std::vector<point>& points,
                  const std::vector<double>& weights);

// Weighted median by an iteratively re-weighted mean with the kernel exp(-distance): starts at
// the weighted mean, which is returned as it is for a tolerance of 1 or more; otherwise refines
// until a step moves no more than tolerance, at most 100 rounds (or until the kernel weights
// vanish, keeping the last estimate).
bool weightedMedian(point& result, const std::vector<point>& points,
                    const std::vector<double>& weights, double tolerance);

// Cubic spline smoothing kernel of support q = 2 r / h < 2, 1 at q = 0 (not normalised):
// 1 - 1.5 q^2 + 0.75 q^3 below q = 1, 0.25 (2 - q)^3 up to q = 2, 0 beyond and for r < 0.
double sphCubic(const double r, const double h);
// The same with h = 1.
double sphCubic(const double r);

// Settings of a neighbourhood search.
struct ComputeNeighboursParameterBox {
  double radius = 1.0;    // search radius, in the units of the positions
  std::string mode;       // search mode text, compared by different()
  bool stripwise = false; // search strip by strip instead of over the whole cloud

  // True when a result computed with other cannot be reused: radii more than 0.001 apart, or
  // another mode, or another stripwise flag.
  bool different(const ComputeNeighboursParameterBox& other) const;
  // "radius: ", "mode: ", "stripwise: " lines.
  void print() const;
  static constexpr auto fields();
};

constexpr auto ComputeNeighboursParameterBox::fields() {
  using B = ComputeNeighboursParameterBox;
  return describeBox(
      "ComputeNeighboursParameterBox",
      field(&B::radius, "radius", "m", "radius: ", "search radius in metres, positive"),
      field(&B::mode, "mode", "", "mode: ", "search mode text"),
      field(&B::stripwise, "stripwise", "",
            "stripwise: ", "search strip by strip instead of the whole cloud"));
}

} // namespace Quorvel
