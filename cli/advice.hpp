// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: what to do about a failed run. The library's messages name what is missing in
// its own words ("ERROR: no f_normalvector"); the host keeps them as they are and adds what a
// user can do: the command that makes a missing field, or the fields the cloud has.
#pragma once

#include "tressel/grid.hpp"

#include <string>

namespace Quorvel::Cli {

// The explanation to append to message (starting with " (" and ending with ")"), or "" when
// there is nothing to add.
std::string advice(const std::string& message, const Tressel::Grid& grid);

// The names of the per-point fields of the grid, comma-separated, in their order.
std::string fieldList(const Tressel::Grid& grid);

} // namespace Quorvel::Cli
