// Shared by every fuzz target: the library's console lines kept off the terminal, since printing
// them would cost more than the parsing they report on.
#include "fuzz/FuzzInput.hpp"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Quorvel::Fuzz::quietConsole();
  return 0;
}
