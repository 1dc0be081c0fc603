// SPDX-License-Identifier: BSD-3-Clause
// Quorvel filters: the points an expression (--where) leaves to a filter.
#pragma once

#include "quorvel/core/core.hpp"

#include <optional>
#include <string>
#include <vector>

namespace Quorvel::detail {

// For each fragment slot, whether the expression where holds at each point (1) or not (0); all 1
// without an expression. nullopt with the problem (a syntax error with its column, a field the
// cloud lacks) in problem.
std::optional<std::vector<std::vector<unsigned char>>>
testedPoints(const Basalt::StrongPtr<Tressel::Grid>& grid, const std::vector<FragmentSlot>& slots,
             const std::string& where, std::string& problem);

} // namespace Quorvel::detail
