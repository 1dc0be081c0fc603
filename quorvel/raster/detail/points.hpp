// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the rasters made from clouds share: the points they take (by class, first
// returns) and the pixels that cover a cloud.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/raster/detail/pixels.hpp"

#include <array>
#include <cmath>
#include <vector>

namespace Quorvel::Raster::detail {

// The points a raster takes: those of the classes (every point when classes is empty) and, with
// firstReturns, only first returns.
class PointFilter {
public:
  PointFilter(const Vantor::MultiRange<double>& classes, bool firstReturns)
      : all_(classes.empty()), first_(firstReturns) {
    for (int c = 0; c < 256; ++c)
      take_[static_cast<std::size_t>(c)] = all_ || classes.contains(c, 1e-9);
  }

  // One fragment's arrays: its positions, and its classes and returns where the filter reads
  // them (null where not).
  struct Span {
    StrongPtr<const MemArray<1, point>> xyz;
    StrongPtr<const MemArray<1, unsigned char>> classes, returns;
    std::size_t size() const { return xyz->size(); }
  };

  // The fragments of the cloud whose points the filter may take, in layout order. A cloud
  // without "Classification" has no point of any class; one without "ReturnNumber" no first
  // return.
  std::vector<Span> spansOf(const Tressel::Grid& cloud) const {
    std::vector<Span> out;
    auto positions = cloud.CartesianPositions();
    auto rep = cloud.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
    if (!positions || !rep)
      return out;
    auto cls = all_ ? nullptr : rep->findField("Classification");
    auto returns = first_ ? rep->findField("ReturnNumber") : nullptr;
    if ((!all_ && !cls) || (first_ && !returns))
      return out;
    for (const FragmentSlot& slot : fragmentsOf(*positions)) {
      Span s{fragmentArray<point>(*positions, slot), nullptr, nullptr};
      if (!s.xyz)
        continue;
      s.classes = cls ? fragmentArray<unsigned char>(*cls, slot) : nullptr;
      s.returns = returns ? fragmentArray<unsigned char>(*returns, slot) : nullptr;
      if ((cls && (!s.classes || s.classes->size() != s.size())) ||
          (returns && (!s.returns || s.returns->size() != s.size())))
        continue;
      out.push_back(std::move(s));
    }
    return out;
  }

  // Whether the filter takes point i of the span: its class and return, finite coordinates.
  bool takes(const Span& s, std::size_t i) const {
    if ((s.classes && !take_[s.classes->data()[i]]) || (s.returns && s.returns->data()[i] > 1))
      return false;
    const point& p = s.xyz->data()[i];
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.z);
  }

  // Calls f(p) for every point i in [begin, end) of the span that the filter takes, in order.
  template <class F>
  void forEachIn(const Span& s, std::size_t begin, std::size_t end, F&& f) const {
    const point* xyz = s.xyz->data();
    for (std::size_t i = begin; i < end; ++i)
      if (takes(s, i))
        f(xyz[i]);
  }

private:
  std::array<bool, 256> take_{};
  bool all_, first_;
};

// Empty pixels (no types or heights yet) at multiples of cellSize covering the cloud so that the
// mapping reaches every point: each point lies in a pixel, and its position shifted by half a cell
// within the box of the pixels' centres (one column and one row past the highest points' pixels).
// The extent comes from the fragments' boxes. Throws std::runtime_error starting with what: a cell
// size that is not positive, a cloud without finite points, far too many cells.
Pixels coveringPixels(const Tressel::Grid& cloud, double cellSize, const std::string& what);

// The pixel of p (row-major index), false when p lies off the pixels. Pixels whose edges lie at
// multiples of their size: the pixel is floor(p / size) less that of the first centre.
inline bool pixelOf(const Pixels& pixels, const point& p, std::size_t& at) {
  const double gx = std::floor(p.x / pixels.sizeX) - std::floor(pixels.x0 / pixels.sizeX);
  const double gy = std::floor(p.y / pixels.sizeY) - std::floor(pixels.y0 / pixels.sizeY);
  if (!(gx >= 0 && gy >= 0 && gx < static_cast<double>(pixels.columns) &&
        gy < static_cast<double>(pixels.rows)))
    return false;
  at = static_cast<std::size_t>(gy) * pixels.columns + static_cast<std::size_t>(gx);
  return true;
}

// Fills every empty cell (not Measured) from the measured cells of the nearest ring (Chebyshev
// distance up to rings) that holds any, weighted by the inverse squared distance (Filled).
void fillGaps(Pixels& p, int rings);

// Heights at the pixels' centres by linear interpolation over a Delaunay triangulation of the
// points in x and y (qhull): Measured inside the triangulation's hull, NoData outside. Fewer
// than three points not on one line leave every pixel NoData.
void tinHeights(const Basalt::ArrayVector<point>& points, Pixels& p);

// Heights at the pixels' centres as the mean z of the points in the pixel's 3 x 3 block of
// pixels, each weighted by the inverse squared distance from the centre in x and y (a point at
// the centre gives its z): Measured where the block holds a point, NoData elsewhere.
void idwHeights(const Basalt::ArrayVector<point>& points, Pixels& p);

} // namespace Quorvel::Raster::detail
