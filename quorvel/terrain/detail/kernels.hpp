// SPDX-License-Identifier: BSD-3-Clause
// Quorvel, terrain: the per-point kernels of the planar regression and of the square terrain
// measures, kept apart from the drivers so that they can be tested on plain arrays.
#pragma once

#include "quorvel/geometry/geometry.hpp"
#include "quorvel/terrain/terrain.hpp"
#include "tressel/mem_array.hpp"
#include "vantor/multi_range.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Quorvel::detail {

using Plane = Vantor::PhysicalSpace::vector;

// What a round of the regression does with one candidate, given the indices of its neighbours
// (itself included when it is in the tree).
struct RegressionStep {
  const Tressel::MultiArray<1, const point>& positions;
  const Vantor::MultiRange<double>& range;
  int target;
  unsigned quantile;

  // What a step learns from a neighbourhood: its size, and whether the candidate lies within
  // range of the plane through its neighbours (only asked of a new neighbourhood of more than
  // three).
  struct Outcome {
    std::uint32_t found = 0;
    bool inRange = false;
  };

  // Updates the candidate's class, radius and last neighbour count. scratch is the caller's
  // reusable buffer.
  void operator()(std::size_t i, const std::vector<unsigned>& neighbours, unsigned char& cls,
                  double& radius, std::uint32_t& lastCount, std::vector<point>& scratch) const {
    apply(outcome(i, neighbours, lastCount, scratch), cls, radius, lastCount);
  }
  Outcome outcome(std::size_t i, const std::vector<unsigned>& neighbours, std::uint32_t lastCount,
                  std::vector<point>& scratch) const;
  void apply(const Outcome& o, unsigned char& cls, double& radius, std::uint32_t& lastCount) const;
};

// planarRegressionOfMultiArray, returning the number of rounds whose point step ran.
int regressFragment(const Tressel::MultiArray<1, const point>& positions,
                    const Basalt::StrongPtr<Vantor::BoundingBox>& bbox,
                    PlanarRegressionParameterBox& box,
                    Tressel::MultiArray<1, unsigned char>& classes);

// extrapolationOfMultiArray, returning the number of rounds whose point step ran, or -1 for an
// unknown mode or dimension.
int extrapolateFragment(const Tressel::MultiArray<1, const point>& positions,
                        const Basalt::StrongPtr<Vantor::BoundingBox>& bbox,
                        const ExtrapolationParameterBox& box,
                        Tressel::MultiArray<1, unsigned char>& classes);

// The half width of a square neighbourhood as it is used: rounded to single precision.
inline double squareHalfWidthInUse(double halfWidth) {
  return static_cast<double>(static_cast<float>(halfWidth));
}

// The below value of a square: int(255 * below / inside), 255 for an empty square.
inline unsigned char shareOf(std::size_t below, std::size_t inside) {
  if (inside == 0)
    return 255;
  return static_cast<unsigned char>(static_cast<double>(below) / static_cast<double>(inside) *
                                    255.0);
}

} // namespace Quorvel::detail
