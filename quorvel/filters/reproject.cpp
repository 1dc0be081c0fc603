// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: reprojection of a cloud's positions through a transform the host supplies, and the
// LAS scale and offset that keep their precision.
#include "quorvel/filters/detail/approximation.hpp"
#include "quorvel/filters/filters.hpp"

#include "basalt/text.hpp"
#include "quorvel/core/core.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <tuple>

namespace Quorvel {

void ReprojectionParameterBox::print() const {
  printFields(*this);
}

void ReprojectionParameterBox::printScale(std::string_view label,
                                          const std::array<double, 3>& scale) {
  printField(label, Basalt::format("(%g,%g,%g)", scale[0], scale[1], scale[2]));
}

namespace {

// Transforms one fragment's points in blocks, each block by the approximation where there is
// one, else (and for the points it leaves) by the calling thread's transform.
bool transformFragment(point* xyz, std::size_t n, const PointTransform& transform,
                       const detail::ApproximateTransform* approximation) {
  constexpr std::size_t Block = 4096;
  std::vector<double> x(Block), y(Block), z(Block);
  for (std::size_t b = 0; b < n; b += Block) {
    const std::size_t size = std::min(Block, n - b);
    for (std::size_t i = 0; i < size; ++i)
      std::tie(x[i], y[i], z[i]) = std::tuple(xyz[b + i].x, xyz[b + i].y, xyz[b + i].z);
    if (approximation ? !approximation->apply(size, x.data(), y.data(), z.data(), transform)
                      : !transform(size, x.data(), y.data(), z.data()))
      return false;
    for (std::size_t i = 0; i < size; ++i)
      xyz[b + i] = point(x[i], y[i], z[i]);
  }
  return true;
}

// The largest power of ten not above step.
double powerOfTenBelow(double step) {
  return std::pow(10.0, std::floor(std::log10(step) + 1e-9));
}

// The output scale: one input step at the centre c (input coordinates) carried through the
// transform; false when the centre cannot be transformed.
bool chooseScale(const point& c, ReprojectionParameterBox& box, const PointTransform& transform) {
  const auto& s = box.inputScale;
  double x[4] = {c.x, c.x + s[0], c.x, c.x};
  double y[4] = {c.y, c.y, c.y + s[1], c.y};
  double z[4] = {c.z, c.z, c.z, c.z + s[2]};
  if (!transform(4, x, y, z))
    return false;
  const double alongX = std::hypot(x[1] - x[0], y[1] - y[0]);
  const double alongY = std::hypot(x[2] - x[0], y[2] - y[0]);
  // A tenth of the step: rounding to the output's grid then adds at most a twentieth of an
  // input step, so that a round trip stays within the input's precision.
  const double step = std::min(alongX, alongY) / 10;
  const double up = std::abs(z[3] - z[0]) / 10;
  box.scale[0] = box.scale[1] = step > 0 && std::isfinite(step) ? powerOfTenBelow(step) : s[0];
  box.scale[2] = up > 0 && std::isfinite(up) ? powerOfTenBelow(up) : s[2];
  return true;
}

// Whole-unit offsets at the minimum; a scale that cannot span the extent in 32-bit integers is
// coarsened tenfold until it can.
void chooseOffset(const point& lo, const point& hi, ReprojectionParameterBox& box) {
  for (int a = 0; a < 3; ++a) {
    const auto k = static_cast<std::size_t>(a);
    box.offset[k] = std::floor(lo[a]);
    while ((hi[a] - box.offset[k]) / box.scale[k] > 2147483647.0)
      box.scale[k] *= 10.0;
  }
}

// The smallest and largest coordinates of the points (lo above hi when there are none).
std::pair<point, point> extent(const std::vector<StrongPtr<MemArray<1, point>>>& arrays) {
  constexpr double Inf = std::numeric_limits<double>::infinity();
  point lo(Inf, Inf, Inf), hi(-Inf, -Inf, -Inf);
  for (const auto& a : arrays)
    for (std::size_t i = 0; i < a->size(); ++i)
      for (int c = 0; c < 3; ++c) {
        lo[c] = std::min(lo[c], (*a)[i][c]);
        hi[c] = std::max(hi[c], (*a)[i][c]);
      }
  return {lo, hi};
}

} // namespace

bool reproject(const StrongPtr<Grid>& grid, ReprojectionParameterBox& box,
               const TransformFactory& makeTransform) {
  Messages log("Reprojection: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return false;
  const auto slots = fragmentsOf(*positions);
  std::vector<StrongPtr<MemArray<1, point>>> arrays;
  for (const FragmentSlot& slot : slots)
    if (auto xyz = writableFragmentArray<point>(*positions, slot))
      arrays.push_back(std::move(xyz));
  auto [lo, hi] = extent(arrays);
  if (!(lo.x <= hi.x))
    return true;
  if (!chooseScale(lo + (hi - lo) * 0.5, box, makeTransform())) {
    log.report("ERROR: the centre of the cloud cannot be transformed");
    return false;
  }
  std::optional<detail::ApproximateTransform> approximation;
  if (!box.exact) {
    std::size_t count = 0;
    for (const auto& a : arrays)
      count += a->size();
    const std::array<double, 3> tolerance{
        box.scale[0] * box.tolerance, box.scale[1] * box.tolerance, box.scale[2] * box.tolerance};
    approximation.emplace(lo, hi, tolerance, count / 8, makeTransform());
  }
  // Pieces of about 64k points, so that one large fragment still spreads over the threads.
  constexpr std::size_t Piece = 65536;
  std::vector<std::pair<point*, std::size_t>> pieces;
  for (const auto& a : arrays)
    for (std::size_t b = 0; b < a->size(); b += Piece)
      pieces.emplace_back(a->data() + b, std::min(Piece, a->size() - b));
  // A transform per thread: a PROJ object is not to be shared between threads.
  std::vector<std::uint8_t> failed(pieces.size(), 0);
  forEachItemWith(pieces.size(), correctedThreadCount(box.threads), makeTransform,
                  [&](const PointTransform& transform, std::size_t k) {
                    const auto& [xyz, n] = pieces[k];
                    failed[k] = !transformFragment(xyz, n, transform,
                                                   approximation ? &*approximation : nullptr);
                  });
  if (std::find(failed.begin(), failed.end(), 1) != failed.end()) {
    log.report("ERROR: points that the transform cannot carry (outside the systems' area?)");
    return false;
  }
  std::tie(lo, hi) = extent(arrays);
  chooseOffset(lo, hi, box);
  for (const FragmentSlot& slot : slots)
    if (slot.creator)
      underCriticalSection([&] { slot.creator->touch(); });
  return true;
}

} // namespace Quorvel
