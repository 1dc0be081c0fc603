// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the file a LAS writer writes, and the header completed from its records.
#include "io/detail/las_output.hpp"
#include "io/detail/las_record.hpp"
#include "quorvel/core/parallel.hpp"

#include <algorithm>
#include <cstring>
#include <vector>

namespace Quorvel::Las::detail {

namespace {

template <class F>
void translated(const F& f) {
  try {
    f();
  } catch (const Basalt::ReplacingFile::Error& e) {
    throw Error(e.what());
  }
}

} // namespace

TemporaryFile::TemporaryFile(const std::string& path) try : file_(path) {
} catch (const Basalt::ReplacingFile::Error& e) {
  throw Error(e.what());
}

void TemporaryFile::write(const std::uint8_t* data, std::size_t size) {
  translated([&] { file_.write(data, size); });
}

void TemporaryFile::writeAt(std::uint64_t at, const std::uint8_t* data, std::size_t size) {
  translated([&] { file_.writeAt(at, data, size); });
}

void TemporaryFile::commit() {
  translated([&] { file_.commit(); });
}

void Tally::add(const std::uint8_t* records, std::size_t n, std::size_t length, bool extended) {
  const auto addAll = [&](Tally& into, std::size_t begin, std::size_t end, auto view) {
    using Record = decltype(view);
    for (std::size_t i = begin; i < end; ++i) {
      const Record r(records + i * length);
      std::int32_t xyz[3];
      r.xyz(xyz);
      into.add(xyz, static_cast<int>(r.returnNumber()));
    }
  };
  // Blocks of records counted on the threads, each into a tally of its own, then added in
  // order: bounds and counts of integers, the same whatever the blocks.
  const int threads = allThreads();
  const std::size_t parts = Basalt::blocksFor(n, threads);
  std::vector<Tally> tallies(parts);
  Basalt::inParts(parts, threads, [&](std::size_t k, int) {
    const std::size_t begin = n * k / parts, end = n * (k + 1) / parts;
    if (extended)
      addAll(tallies[k], begin, end, ExtendedRecord(records));
    else
      addAll(tallies[k], begin, end, LegacyRecord(records));
  });
  add(joined(tallies));
}

RawHeader completed(const Header& h, const Places& layout, const Tally& tally) {
  RawHeader raw;
  raw.header = h;
  Header& o = raw.header;
  const std::uint64_t n = tally.count;
  o.headerSize = static_cast<std::uint16_t>(headerSizeFor(h.versionMinor));
  o.vlrCount = static_cast<std::uint32_t>(layout.vlrCount);
  o.pointOffset = static_cast<std::uint32_t>(layout.pointOffset);
  o.pointCount = n;
  o.evlrCount = static_cast<std::uint32_t>(layout.evlrCount);
  o.evlrOffset = layout.evlrOffset;
  if (layout.compressed)
    o.pointFormat = static_cast<std::uint8_t>(h.pointFormat | 0x80);
  for (int a = 0; a < 3; ++a) {
    const double x = n ? tally.lo[a] * h.scale[a] + h.offset[a] : 0.0;
    const double y = n ? tally.hi[a] * h.scale[a] + h.offset[a] : 0.0;
    o.min[a] = std::min(x, y);
    o.max[a] = std::max(x, y);
  }
  const bool legacy =
      !format(h.pointFormat).extended && n <= std::numeric_limits<std::uint32_t>::max();
  raw.legacyPointCount = legacy ? static_cast<std::uint32_t>(n) : 0;
  for (std::size_t k = 0; k < 5; ++k)
    raw.legacyByReturn[k] = legacy ? static_cast<std::uint32_t>(tally.byReturn[k]) : 0;
  raw.pointCount = n;
  raw.byReturn = tally.byReturn;
  return raw;
}

} // namespace Quorvel::Las::detail
