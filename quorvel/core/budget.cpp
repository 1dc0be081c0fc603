// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the budget of cells of a raster or picture.
#include "quorvel/core/budget.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace Quorvel {

namespace {

// A count as a whole number: "2000000000", not "2e+09".
std::string whole(double count) {
  char text[64];
  const int n = std::snprintf(text, sizeof text, "%.0f", count);
  return std::string(text, static_cast<std::size_t>(n));
}

} // namespace

std::uint64_t cellBudget() {
  const char* set = std::getenv(CellBudgetVariable);
  if (!set || !*set)
    return DefaultCellBudget;
  const std::string_view text(set);
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value == 0)
    throw std::runtime_error(std::string(CellBudgetVariable) + "=\"" + std::string(text) +
                             "\" is not a whole number of cells above 0");
  return value;
}

void checkCellBudget(const std::string& what, double columns, double rows,
                     const std::string& unit) {
  const std::uint64_t budget = cellBudget();
  const double total = columns * rows;
  if (std::isfinite(total) && total <= static_cast<double>(budget))
    return;
  throw std::runtime_error(what + ": " + whole(columns) + " x " + whole(rows) + " " + unit + " (" +
                           whole(total) + ") exceed the budget of " + std::to_string(budget) +
                           " cells (set " + CellBudgetVariable + " to allow more)");
}

} // namespace Quorvel
