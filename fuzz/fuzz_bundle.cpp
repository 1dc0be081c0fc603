// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: bundle files loaded and checked, as the host loads them.
#include "fuzz/fuzz_input.hpp"

#include "tressel/bundle.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quorvel::Fuzz::MemoryFile file(data, size);
  Tressel::Bundle bundle;
  if (bundle.bindTo(file.path()))
    for (const auto& id : bundle.getGridIdentifiers())
      (void)id;
  return 0;
}
