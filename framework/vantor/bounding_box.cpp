// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: axis-aligned bounding boxes.
#include "vantor/bounding_box.hpp"

#include <algorithm>

namespace Vantor {

using PhysicalSpace::point;

BoundingBox::BoundingBox() = default;

BoundingBox::BoundingBox(const point& a, const point& b) {
  setCorners(a, b);
  updateBall();
}

void BoundingBox::setCorners(const point& a, const point& b) {
  for (int k = 0; k < 3; ++k) {
    min_[k] = std::min(a[k], b[k]);
    max_[k] = std::max(a[k], b[k]);
  }
  empty_ = false;
}

point BoundingBox::center() const {
  return {(min_.x + max_.x) / 2, (min_.y + max_.y) / 2, (min_.z + max_.z) / 2};
}

PhysicalSpace::vector BoundingBox::extent() const {
  if (empty_)
    return {};
  return max_ - min_;
}

bool BoundingBox::inside(const point& p, char mode) const {
  if (empty_)
    return false;
  switch (mode) {
  case PointClosed:
    return min_.x <= p.x && p.x <= max_.x && min_.y <= p.y && p.y <= max_.y && min_.z <= p.z &&
           p.z <= max_.z;
  case PointHalfOpen:
    return min_.x <= p.x && p.x < max_.x && min_.y <= p.y && p.y < max_.y && min_.z <= p.z &&
           p.z < max_.z;
  case PointPlanar:
    return min_.x <= p.x && p.x <= max_.x && min_.y <= p.y && p.y <= max_.y;
  case PointInBall:
    return PhysicalSpace::squaredDistance(p, ballCenter_) <= ballRadius_ * ballRadius_;
  default:
    return false;
  }
}

bool BoundingBox::inside(const BoundingBox& o, char mode) const {
  if (empty_ || o.empty_)
    return false;
  auto touchingOrOverlap = [&](int k) { return o.min_[k] <= max_[k] && min_[k] <= o.max_[k]; };
  switch (mode) {
  case Intersects:
    return touchingOrOverlap(0) && touchingOrOverlap(1) && touchingOrOverlap(2);
  case Contains:
    for (int k = 0; k < 3; ++k)
      if (o.min_[k] < min_[k] || max_[k] < o.max_[k])
        return false;
    return true;
  case IntersectsPlanar:
    return touchingOrOverlap(0) && touchingOrOverlap(1);
  case Overlaps:
    for (int k = 0; k < 3; ++k)
      if (!(o.min_[k] < max_[k] && min_[k] < o.max_[k]))
        return false;
    return true;
  default:
    return false;
  }
}

void BoundingBox::expand(const point& p) {
  if (!p.isFinite())
    return;
  if (empty_) {
    min_ = max_ = p;
    empty_ = false;
  } else {
    for (int k = 0; k < 3; ++k) {
      min_[k] = std::min(min_[k], p[k]);
      max_[k] = std::max(max_[k], p[k]);
    }
  }
  updateBall();
}

void BoundingBox::expand(const BoundingBox& other) {
  if (other.empty_)
    return;
  if (empty_) {
    min_ = other.min_;
    max_ = other.max_;
    empty_ = false;
  } else {
    for (int k = 0; k < 3; ++k) {
      min_[k] = std::min(min_[k], other.min_[k]);
      max_[k] = std::max(max_[k], other.max_[k]);
    }
  }
  updateBall();
}

void BoundingBox::updateBall() {
  if (empty_) {
    ballCenter_ = {};
    ballRadius_ = 0.0;
    return;
  }
  ballCenter_ = center();
  ballRadius_ = (max_ - min_).length() / 2;
}

} // namespace Vantor
