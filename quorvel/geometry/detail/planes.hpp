// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the plane fits' shared step for callers inside the library.
#pragma once

#include "vantor/physical_space.hpp"

#include <vector>

namespace Quorvel::detail {

// The percent form of planarRegression on the caller's own buffer: the lowest points are moved
// to the front (the buffer's order changes) and left out of the fit. A caller that fits many
// planes reuses one buffer instead of copying every neighbourhood.
bool planarRegressionInPlace(std::vector<Vantor::PhysicalSpace::point>& points,
                             Vantor::PhysicalSpace::vector& plane, unsigned percent);

} // namespace Quorvel::detail
