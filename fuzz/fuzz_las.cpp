// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: LAS files read whole, read in tiles, summarised, and read in batches by box (a COPC
// file's hierarchy then chooses the chunks), as the host reads them.
#include "fuzz/fuzz_input.hpp"

#include "io/las.hpp"
#include "io/stream.hpp"

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
  try {
    Quorvel::Las::Reader reader(file.path());
    const auto& h = reader.info().header;
    reader.restrict({h.min[0], h.min[1], (h.min[0] + h.max[0]) / 2, h.max[1], std::nullopt});
    while (reader.next().count > 0) {
    }
  } catch (const Quorvel::Las::Error&) {
  }
  return 0;
}
