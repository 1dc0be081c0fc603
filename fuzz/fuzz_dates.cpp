// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: acquisition dates read from file names, and their GPS weeks.
#include "fuzz/fuzz_input.hpp"

#include "quorvel/metadata/metadata.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Quorvel::Chronometry date(Quorvel::Fuzz::text(data, size));
  date.print();
  (void)date.yyyymmdd('-');
  return 0;
}
