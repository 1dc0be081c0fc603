// SPDX-License-Identifier: BSD-3-Clause
// Quorvel filters: the points an expression (--where) leaves to a filter.
#include "quorvel/filters/detail/where.hpp"
#include "quorvel/selection/selection.hpp"

namespace Quorvel::detail {

std::optional<std::vector<std::vector<unsigned char>>>
testedPoints(const Basalt::StrongPtr<Tressel::Grid>& grid, const std::vector<FragmentSlot>& slots,
             const std::string& where, std::string& problem) {
  std::vector<std::vector<unsigned char>> tested(slots.size());
  if (where.empty()) {
    const auto positions = grid->CartesianPositions();
    for (std::size_t k = 0; k < slots.size(); ++k) {
      const auto xyz = fragmentArray<Vantor::PhysicalSpace::point>(*positions, slots[k]);
      tested[k].assign(xyz ? xyz->size() : 0, 1);
    }
    return tested;
  }
  const Expression expression(where);
  if (problem = expression.problemWith(grid); !problem.empty())
    return std::nullopt;
  for (std::size_t k = 0; k < slots.size(); ++k)
    if (!expression.mask(grid, *slots[k].id, tested[k])) {
      problem = "a field of \"" + where + "\" holds no values for a fragment of the positions";
      return std::nullopt;
    }
  return tested;
}

} // namespace Quorvel::detail
