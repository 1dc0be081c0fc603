// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: the three class-assignment parsers ("2>6;3:5>7", "0:1.5=2", "a:b=c:d=k"), the
// first byte choosing which.
#include "fuzz/fuzz_input.hpp"

#include "quorvel/core/core.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    return 0;
  const std::string text = Quorvel::Fuzz::text(data + 1, size - 1);
  switch (data[0] % 3) {
  case 0: {
    std::vector<unsigned char> table;
    Quorvel::assignClassesToClasses(text, table);
    break;
  }
  case 1: {
    std::vector<std::pair<std::pair<double, double>, int>> table;
    if (Quorvel::assignRangesToClasses(text, table))
      Quorvel::printAssignment(table);
    break;
  }
  default: {
    std::vector<std::tuple<std::pair<double, double>, std::pair<double, double>, int>> table;
    Quorvel::reclassificationAccordingToRange(text, table);
  }
  }
  return 0;
}
