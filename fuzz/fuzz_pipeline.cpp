// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: pipeline files read and checked, every stage's options parsed, as `quorvel
// pipeline` does before it runs anything (nothing is run, so no file is written).
#include "fuzz/fuzz_input.hpp"

#include "cli/commands/command.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quorvel::Fuzz::MemoryFile file(data, size);
  try {
    Quorvel::Cli::checkPipeline(file.path());
  } catch (const std::exception&) {
  }
  return 0;
}
