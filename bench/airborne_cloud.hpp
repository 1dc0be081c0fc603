// SPDX-License-Identifier: BSD-3-Clause
// A synthetic airborne-like cloud shared by the benchmarks: 1 km x 1 km at one point per square
// metre, heights on a gentle slope with 2 m of noise, at georeferenced coordinates.
#pragma once

#include "vantor/physical_space.hpp"

#include <random>
#include <vector>

namespace bench {

inline const std::vector<Vantor::PhysicalSpace::point>& airborneCloud() {
  static const std::vector<Vantor::PhysicalSpace::point> points = [] {
    std::mt19937_64 random(42);
    std::uniform_real_distribution<double> xy(0.0, 1000.0);
    std::normal_distribution<double> noise(0.0, 2.0);
    std::vector<Vantor::PhysicalSpace::point> out(1'000'000);
    for (auto& p : out) {
      const double x = xy(random), y = xy(random);
      p = {5.0e5 + x, 5.4e6 + y, 200.0 + 0.02 * x + noise(random)};
    }
    return out;
  }();
  return points;
}

} // namespace bench
