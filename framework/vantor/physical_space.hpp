// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: points, vectors and small fixed arrays of three-dimensional space.
#pragma once

#include <cmath>
#include <cstddef>

namespace Vantor {

// N values of one type, stored inline.
template <class T, int N>
struct FixedArray {
  T values[N]{};

  constexpr T& operator[](int i) { return values[i]; }
  constexpr const T& operator[](int i) const { return values[i]; }
  static constexpr int size() { return N; }
  friend constexpr bool operator==(const FixedArray&, const FixedArray&) = default;
};

// An RGB colour of three bytes.
struct RGB {
  unsigned char r = 0, g = 0, b = 0;
  friend constexpr bool operator==(const RGB&, const RGB&) = default;
};

// A colour of three 16-bit channels, as LAS files store it.
struct RGB16 {
  unsigned short r = 0, g = 0, b = 0;
  friend constexpr bool operator==(const RGB16&, const RGB16&) = default;
};

namespace PhysicalSpace {

namespace detail {
// Shared layout of the three-double types: component access by name and by index.
template <class Derived>
struct Triple {
  double x = 0.0, y = 0.0, z = 0.0;

  constexpr Triple() = default;
  constexpr Triple(double x_, double y_, double z_) : x(x_), y(y_), z(z_) {}

  constexpr double& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
  constexpr const double& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
  bool isFinite() const { return std::isfinite(x) && std::isfinite(y) && std::isfinite(z); }
  friend constexpr bool operator==(const Triple&, const Triple&) = default;
};
} // namespace detail

// A direction or a difference of points (three doubles).
struct vector : detail::Triple<vector> {
  using Triple::Triple;

  constexpr vector operator+(const vector& o) const { return {x + o.x, y + o.y, z + o.z}; }
  constexpr vector operator-(const vector& o) const { return {x - o.x, y - o.y, z - o.z}; }
  constexpr vector operator-() const { return {-x, -y, -z}; }
  constexpr vector operator*(double s) const { return {x * s, y * s, z * s}; }
  constexpr double dot(const vector& o) const { return x * o.x + y * o.y + z * o.z; }
  constexpr double squaredLength() const { return dot(*this); }
  double length() const { return std::sqrt(squaredLength()); }
};

// An oriented plane element (three doubles), the dual of a vector.
struct bivector : detail::Triple<bivector> {
  using Triple::Triple;
};

// A location in world coordinates (three doubles x, y, z).
struct point : detail::Triple<point> {
  using Triple::Triple;

  constexpr vector operator-(const point& o) const { return {x - o.x, y - o.y, z - o.z}; }
  constexpr point operator+(const vector& v) const { return {x + v.x, y + v.y, z + v.z}; }
  constexpr point operator-(const vector& v) const { return {x - v.x, y - v.y, z - v.z}; }
};

// A location stored in single precision (three floats), as positions may be kept in files.
struct FloatPoint {
  float x = 0.0f, y = 0.0f, z = 0.0f;
  friend constexpr bool operator==(const FloatPoint&, const FloatPoint&) = default;
};

// Squared Euclidean distance; squared so that callers compare without a square root.
constexpr double squaredDistance(const point& a, const point& b) {
  return (a - b).squaredLength();
}

} // namespace PhysicalSpace
} // namespace Vantor
