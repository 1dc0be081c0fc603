// Fuzz target: LAS files read whole, read in tiles, and summarised, as the host reads them.
#include "fuzz/FuzzInput.hpp"

#include "io/las.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Quorvel::Fuzz::MemoryFile file(data, size);
  try {
    (void)Quorvel::Las::summarize(file.path());
  } catch (const Quorvel::Las::Error&) {
  }
  for (std::size_t tile : {std::size_t{0}, std::size_t{64}}) {
    try {
      (void)Quorvel::Las::read(file.path(), tile);
    } catch (const Quorvel::Las::Error&) {
    }
  }
  return 0;
}
