// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: the files that operands name, for the commands that take many (info, index).
#pragma once

#include <string>
#include <vector>

namespace Quorvel::Cli {

// Each operand that is a directory stands for its LAS, LAZ and bundle files, sorted by name;
// the others for themselves. Throws Error for a directory that cannot be listed or holds none.
std::vector<std::string> filesOf(const std::vector<std::string>& operands);

} // namespace Quorvel::Cli
