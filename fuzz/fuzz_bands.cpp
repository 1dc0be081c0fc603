// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: the distance/class text of the classification transfer ("0.5=2;1=3", the host's
// --bands), parsed into a box and printed.
#include "fuzz/fuzz_input.hpp"

#include "quorvel/classification/classification.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Quorvel::ClassificationTransferParameterBox box(Quorvel::Fuzz::text(data, size));
  box.print();
  return 0;
}
