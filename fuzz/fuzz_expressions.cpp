// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: expressions (select --where, assign --set) parsed and, when they parse, evaluated
// over a small cloud with fields of two types.
#include "fuzz/fuzz_input.hpp"

#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"
#include "tressel/point_cloud.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const auto grid = [] {
    std::vector<Vantor::PhysicalSpace::point> xyz{{1, 2, 3}, {4, 5, 6}, {-1, 0, 1e9}};
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("Classification", std::vector<unsigned char>{2, 6, 255})
        .addField("GpsTime", std::vector<double>{0.5, -1e300, 3});
    return builder.build({{0, 1, 2}});
  }();
  const Quorvel::Expression expression(Quorvel::Fuzz::text(data, size));
  if (expression.empty() || !expression.problemWith(grid).empty())
    return 0;
  const auto slot = Quorvel::fragmentsOf(*grid->CartesianPositions()).front();
  std::vector<unsigned char> mask;
  (void)expression.mask(grid, *slot.id, mask);
  return 0;
}
