// SPDX-License-Identifier: BSD-3-Clause
// Quorvel, terrain: the index behind the square neighbourhoods of the terrain measures.
#pragma once

#include "tressel/mem_array.hpp"
#include "vantor/bounding_box.hpp"
#include "vantor/physical_space.hpp"
#include "vantor/tree_base.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Quorvel::detail {

// The points of a fragment in a uniform x-y grid of cells, about one square wide, held in cell
// order as plain coordinate arrays. Every square of one half width is the same shape, so a grid
// of cells half a square wide answers it from three or four rows of cells, each row one contiguous
// run of entries that a branch-free loop tests: several times faster than a tree walk per square.
//
// Membership is that of the planimetric trees' closed rectangle query: a point is in the square
// about p when p.x - h <= x <= p.x + h and likewise for y, with the point's own coordinates. Points
// outside the box (or not finite) are refused with the trees' out-of-bounds message and are in
// no square; they can still ask for theirs. Built by one thread; const queries from many.
class SquareIndex {
public:
  using point = Vantor::PhysicalSpace::point;

  // Indexes the points i < positions.size() for which takes(i) holds; refused() lists those of
  // them outside box. halfWidth is the half width in use (and the side of the cells).
  template <class Takes>
  SquareIndex(const Tressel::MultiArray<1, const point>& positions, const Vantor::BoundingBox* box,
              double halfWidth, const Takes& takes);

  // Entries in cell order: their coordinates and point indices.
  std::size_t size() const { return ids_.size(); }
  const std::vector<double>& x() const { return x_; }
  const std::vector<double>& y() const { return y_; }
  const std::vector<double>& z() const { return z_; }
  const std::vector<std::size_t>& ids() const { return ids_; }
  const std::vector<std::size_t>& refused() const { return refused_; }
  // The first entry of every cell, row by row, and the end: a position's copies share a cell.
  const std::vector<std::size_t>& cellStarts() const { return start_; }

  // Calls run(begin, end) for runs of entries that together hold every entry of the square
  // [lo.x, hi.x] x [lo.y, hi.y] (and others, which the caller tests). Nothing for a square with a
  // coordinate that is not finite.
  template <class Run>
  void runs(double loX, double hiX, double loY, double hiY, const Run& run) const;

private:
  std::size_t cellX(double x) const { return cell(x, minX_, nx_); }
  std::size_t cellY(double y) const { return cell(y, minY_, ny_); }
  // Monotone in the coordinate, so that a point within the square's bounds lies in a cell within
  // the bounds' cells.
  std::size_t cell(double v, double min, std::size_t n) const;
  void place(const std::vector<std::size_t>& taken,
             const Tressel::MultiArray<1, const point>& positions);

  double minX_ = 0, minY_ = 0, scale_ = 0;
  std::size_t nx_ = 1, ny_ = 1;
  std::vector<std::size_t> start_; // first entry of every cell, row by row, and the end
  std::vector<double> x_, y_, z_;
  std::vector<std::size_t> ids_;
  std::vector<std::size_t> refused_;
};

// The runs' tests, two entries at a time where SSE2 is there (the same comparisons and the same
// minimum as the scalar loop, so the answers are the same to the bit).

// Lowest z among entries [b, e) inside the square, or `lowest` when none is lower.
inline double lowestInSquare(const SquareIndex& index, std::size_t b, std::size_t e, double loX,
                             double hiX, double loY, double hiY, double lowest) {
  const double* x = index.x().data();
  const double* y = index.y().data();
  const double* z = index.z().data();
  constexpr double none = std::numeric_limits<double>::infinity();
  std::size_t j = b;
#if defined(__SSE2__)
  const __m128d lx = _mm_set1_pd(loX), hx = _mm_set1_pd(hiX), ly = _mm_set1_pd(loY),
                hy = _mm_set1_pd(hiY), far = _mm_set1_pd(none);
  __m128d low = _mm_set1_pd(lowest);
  for (; j + 2 <= e; j += 2) {
    const __m128d px = _mm_loadu_pd(x + j), py = _mm_loadu_pd(y + j);
    const __m128d in = _mm_and_pd(_mm_and_pd(_mm_cmpge_pd(px, lx), _mm_cmple_pd(px, hx)),
                                  _mm_and_pd(_mm_cmpge_pd(py, ly), _mm_cmple_pd(py, hy)));
    const __m128d v = _mm_or_pd(_mm_and_pd(in, _mm_loadu_pd(z + j)), _mm_andnot_pd(in, far));
    low = _mm_min_pd(v, low);
  }
  const double low0 = _mm_cvtsd_f64(low), low1 = _mm_cvtsd_f64(_mm_unpackhi_pd(low, low));
  lowest = low1 < low0 ? low1 : low0;
#endif
  for (; j < e; ++j) {
    const bool in = x[j] >= loX && x[j] <= hiX && y[j] >= loY && y[j] <= hiY;
    const double v = in ? z[j] : none;
    lowest = v < lowest ? v : lowest;
  }
  return lowest;
}

// Counts the entries [b, e) inside the square, and those of them strictly below height.
inline void countInSquare(const SquareIndex& index, std::size_t b, std::size_t e, double loX,
                          double hiX, double loY, double hiY, double height, std::size_t& inside,
                          std::size_t& below) {
  const double* x = index.x().data();
  const double* y = index.y().data();
  const double* z = index.z().data();
  std::size_t j = b;
#if defined(__SSE2__)
  const __m128d lx = _mm_set1_pd(loX), hx = _mm_set1_pd(hiX), ly = _mm_set1_pd(loY),
                hy = _mm_set1_pd(hiY), h = _mm_set1_pd(height);
  __m128i n = _mm_setzero_si128(), lower = _mm_setzero_si128();
  for (; j + 2 <= e; j += 2) {
    const __m128d px = _mm_loadu_pd(x + j), py = _mm_loadu_pd(y + j);
    const __m128d in = _mm_and_pd(_mm_and_pd(_mm_cmpge_pd(px, lx), _mm_cmple_pd(px, hx)),
                                  _mm_and_pd(_mm_cmpge_pd(py, ly), _mm_cmple_pd(py, hy)));
    const __m128d under = _mm_and_pd(in, _mm_cmplt_pd(_mm_loadu_pd(z + j), h));
    // A true lane is all ones, -1 as an integer.
    n = _mm_sub_epi64(n, _mm_castpd_si128(in));
    lower = _mm_sub_epi64(lower, _mm_castpd_si128(under));
  }
  alignas(16) long long counts[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(counts), n);
  _mm_store_si128(reinterpret_cast<__m128i*>(counts + 2), lower);
  inside += static_cast<std::size_t>(counts[0] + counts[1]);
  below += static_cast<std::size_t>(counts[2] + counts[3]);
#endif
  for (; j < e; ++j) {
    const bool in = x[j] >= loX && x[j] <= hiX && y[j] >= loY && y[j] <= hiY;
    inside += in ? 1 : 0;
    below += in && z[j] < height ? 1 : 0;
  }
}

template <class Takes>
SquareIndex::SquareIndex(const Tressel::MultiArray<1, const point>& positions,
                         const Vantor::BoundingBox* box, double halfWidth, const Takes& takes) {
  std::vector<std::size_t> taken;
  taken.reserve(positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i)
    if (takes(i)) {
      if (box && !box->empty() && Vantor::acceptsPoint<2>(positions[i], box->min(), box->max()))
        taken.push_back(i);
      else
        refused_.push_back(i);
    }
  if (box && !box->empty()) {
    minX_ = box->min().x;
    minY_ = box->min().y;
    const double width = box->max().x - minX_, height = box->max().y - minY_;
    // Cells one square wide, but never many more cells than points.
    const double limit = 2.0 * static_cast<double>(taken.size()) + 16.0;
    double side = halfWidth;
    if (!(side > 0) || (width / side + 1) * (height / side + 1) > limit)
      side = std::max({side, std::sqrt(width * height / limit), std::max(width, height) / limit});
    if (side > 0 && std::isfinite(side)) {
      scale_ = 1.0 / side;
      nx_ = static_cast<std::size_t>(width * scale_) + 1;
      ny_ = static_cast<std::size_t>(height * scale_) + 1;
    }
  }
  place(taken, positions);
}

template <class Run>
void SquareIndex::runs(double loX, double hiX, double loY, double hiY, const Run& run) const {
  if (ids_.empty() || !std::isfinite(loX) || !std::isfinite(hiX) || !std::isfinite(loY) ||
      !std::isfinite(hiY))
    return;
  const std::size_t x0 = cellX(loX), x1 = cellX(hiX), y0 = cellY(loY), y1 = cellY(hiY);
  for (std::size_t row = y0; row <= y1; ++row)
    run(start_[row * nx_ + x0], start_[row * nx_ + x1 + 1]);
}

} // namespace Quorvel::detail
