// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the budget of cells that one raster or picture may hold, so that a cell size far too
// small for a cloud, or a raster file that claims billions of pixels in a few bytes, is refused
// with its numbers before anything is sized from them.
#pragma once

#include <cstdint>
#include <string>

namespace Quorvel {

// 2^28 cells (16,384 x 16,384): a 1 m raster of 16 km by 16 km. A cell costs about 10 to 20 bytes
// while a raster is made or read (heights, cell types, the grid's own arrays), so the default
// keeps a run within a few GB.
constexpr std::uint64_t DefaultCellBudget = std::uint64_t(1) << 28;
// The environment variable that sets another budget: a whole number of cells above 0.
constexpr const char* CellBudgetVariable = "QUORVEL_MAX_CELLS";

// The budget: the environment variable's value when set, else DefaultCellBudget. Throws
// std::runtime_error naming the variable when its value is not a whole number above 0.
std::uint64_t cellBudget();

// Throws std::runtime_error "<what>: <columns> x <rows> <unit> (<total>) exceed the budget of
// <budget> cells (...)" when columns * rows exceeds the budget; what names the file or the
// command. Both counts may be huge or not finite (sizes worked out from a cell size).
void checkCellBudget(const std::string& what, double columns, double rows,
                     const std::string& unit = "cells");

} // namespace Quorvel
