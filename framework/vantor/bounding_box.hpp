// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: axis-aligned bounding boxes.
#pragma once

#include "basalt/strong_ptr.hpp"
#include "vantor/physical_space.hpp"

#include <cstddef>

namespace Vantor {

// An axis-aligned box given by its minimum and maximum corners, with the enclosing sphere
// ("ball") that cheap rejection tests use. A default box is empty: it holds no point until
// expanded. Points with a non-finite coordinate never enter a box.
class BoundingBox : public Basalt::ReferenceBase {
public:
  using point = PhysicalSpace::point;

  // Modes of inside(point, mode).
  static constexpr char PointClosed = 0;   // min <= p <= max on all three axes
  static constexpr char PointHalfOpen = 1; // min <= p < max on all three axes
  static constexpr char PointPlanar = 2;   // min <= p <= max on x and y; z is ignored
  static constexpr char PointInBall = 3;   // p lies in the enclosing sphere

  // Modes of inside(box, mode).
  static constexpr char Intersects = 0;       // the two boxes intersect; touching counts
  static constexpr char Contains = 1;         // the other box lies wholly inside this one
  static constexpr char IntersectsPlanar = 2; // intersect in x and y (touching counts); z ignored
  static constexpr char Overlaps = 3;         // the interiors intersect; touching does not count

  BoundingBox();
  // The corners are sorted per axis, so either order of the two points gives the same box.
  BoundingBox(const point& a, const point& b);
  // The box of the finite points among points[0 .. n - 1], empty when there is none: the ball
  // is set once, where expanding by each point would set it at every one.
  static BoundingBox of(const point* points, std::size_t n);
  // The same box, from blocks of points on `threads` threads joined in block order.
  static BoundingBox of(const point* points, std::size_t n, int threads);

  const point& min() const { return min_; }
  const point& max() const { return max_; }
  bool empty() const { return empty_; }
  point center() const;
  PhysicalSpace::vector extent() const;
  const point& ballCenter() const { return ballCenter_; }
  double ballRadius() const { return ballRadius_; }

  // An empty box contains nothing and intersects nothing; an unknown mode answers false.
  bool inside(const point& p, char mode = PointClosed) const;
  bool inside(const BoundingBox& other, char mode = Intersects) const;

  // Grows the box to include p (ignored when p has a non-finite coordinate) or another box.
  // Both update the ball.
  void expand(const point& p);
  void expand(const BoundingBox& other);
  // Sets new corners (sorted per axis); the ball is updated by updateBall().
  void setCorners(const point& a, const point& b);
  // Recomputes the enclosing sphere after the corners changed: centre in the middle, radius half
  // the diagonal.
  void updateBall();

  friend bool operator==(const BoundingBox& a, const BoundingBox& b) {
    return a.empty_ == b.empty_ && (a.empty_ || (a.min_ == b.min_ && a.max_ == b.max_));
  }

private:
  point min_, max_;
  point ballCenter_;
  double ballRadius_ = 0.0;
  bool empty_ = true;
};

} // namespace Vantor
