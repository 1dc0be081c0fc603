// SPDX-License-Identifier: BSD-3-Clause
// Shared by every fuzz target: the library's console lines kept off the terminal, since printing
// them would cost more than the parsing they report on.
#include "fuzz/fuzz_input.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Quorvel::Fuzz::quietConsole();
  return 0;
}
