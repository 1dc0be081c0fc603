// Fuzz target: bundle files loaded and checked, as the host loads them.
#include "fuzz/FuzzInput.hpp"

#include "tressel/Bundle.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quorvel::Fuzz::MemoryFile file(data, size);
  Tressel::Bundle bundle;
  if (bundle.bindTo(file.path()))
    for (const auto& id : bundle.getGridIdentifiers())
      (void)id;
  return 0;
}
