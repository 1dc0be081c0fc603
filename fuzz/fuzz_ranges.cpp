// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: value ranges ("2:5,9") parsed and asked, as every class option and box is.
#include "fuzz/fuzz_input.hpp"

#include "vantor/multi_range.hpp"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Vantor::MultiRange<double> range(Quorvel::Fuzz::text(data, size));
  for (double x : {0.0, 2.0, -1.0, 255.0, 1e300, std::nan("")})
    (void)range.contains(x, 1e-9);
  (void)range.to_string();
  return 0;
}
