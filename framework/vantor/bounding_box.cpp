// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: axis-aligned bounding boxes.
#include "vantor/bounding_box.hpp"

#include "basalt/parts.hpp"

#include <algorithm>
#include <limits>

namespace Vantor {

using PhysicalSpace::point;

BoundingBox::BoundingBox() = default;

BoundingBox::BoundingBox(const point& a, const point& b) {
  setCorners(a, b);
  updateBall();
}

BoundingBox BoundingBox::of(const point* points, std::size_t n) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  // Per coordinate, not through point's indexed access, so that the loop stays branch-free but
  // for the finiteness test (v - v is 0 exactly when v is finite).
  double lx = inf, ly = inf, lz = inf, hx = -inf, hy = -inf, hz = -inf;
  for (std::size_t i = 0; i < n; ++i) {
    const point& p = points[i];
    if (!(p.x - p.x == 0 && p.y - p.y == 0 && p.z - p.z == 0))
      continue;
    lx = std::min(lx, p.x);
    ly = std::min(ly, p.y);
    lz = std::min(lz, p.z);
    hx = std::max(hx, p.x);
    hy = std::max(hy, p.y);
    hz = std::max(hz, p.z);
  }
  return lx <= hx ? BoundingBox(point{lx, ly, lz}, point{hx, hy, hz}) : BoundingBox();
}

BoundingBox BoundingBox::of(const point* points, std::size_t n, int threads) {
  const std::size_t parts = Basalt::blocksFor(n, threads);
  if (parts == 1)
    return of(points, n);
  std::vector<BoundingBox> boxes(parts);
  Basalt::inParts(parts, threads, [&](std::size_t k, int) {
    const std::size_t begin = n * k / parts;
    boxes[k] = of(points + begin, n * (k + 1) / parts - begin);
  });
  // Joined as one pass would meet them, so that of equal bounds (0 and -0) the first stays.
  BoundingBox out;
  for (const BoundingBox& box : boxes) {
    if (box.empty())
      continue;
    if (out.empty()) {
      out = box;
      continue;
    }
    point low = out.min_, high = out.max_;
    for (int k = 0; k < 3; ++k) {
      low[k] = std::min(low[k], box.min_[k]);
      high[k] = std::max(high[k], box.max_[k]);
    }
    out = BoundingBox(low, high);
  }
  return out;
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
