// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: progress reporting.
#include "basalt/loader_progress.hpp"

#include "basalt/console.hpp"

#include <algorithm>
#include <cmath>

namespace Basalt {

void ConsoleProgress::progress(double fraction, const std::string& what) {
  const double clamped = std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0;
  Console::write(format("%s: %3d%%\r", what.c_str(), static_cast<int>(clamped * 100.0)));
}

} // namespace Basalt
