// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the point data of a COPC file: the records reordered node by node, each node one LAZ
// chunk, and the hierarchy page that lists where each node's chunk lies.
#include "io/detail/copc.hpp"

#include "io/laz/common.hpp"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <tuple>

namespace Quorvel::Copc {

namespace {

// The records in the octree's order.
std::vector<std::uint8_t> reordered(const std::uint8_t* records, std::size_t recordLength,
                                    const std::vector<std::uint64_t>& order) {
  std::vector<std::uint8_t> out(order.size() * recordLength);
  for (std::size_t i = 0; i < order.size(); ++i)
    std::memcpy(out.data() + i * recordLength, records + order[i] * recordLength, recordLength);
  return out;
}

// The smallest and largest GPS time of records of formats 6 to 8 (at byte 22); zeros for none.
std::pair<double, double> gpsRange(const std::uint8_t* records, std::uint64_t count,
                                   std::size_t recordLength) {
  if (count == 0)
    return {0, 0};
  double lo = std::numeric_limits<double>::infinity(), hi = -lo;
  for (std::uint64_t i = 0; i < count; ++i) {
    const auto t = Laz::load<double>(records + i * recordLength + 22);
    lo = std::min(lo, t);
    hi = std::max(hi, t);
  }
  return {lo, hi};
}

std::int32_t entryValue(std::uint64_t v, const char* what) {
  if (v > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max()))
    throw std::runtime_error("a COPC node of " + std::to_string(v) + " " + what +
                             " does not fit its hierarchy entry");
  return static_cast<std::int32_t>(v);
}

} // namespace

Encoded encodePoints(const std::uint8_t* records, std::uint64_t count, std::size_t recordLength,
                     const Las::Header& header, const Laz::Description& d,
                     std::uint64_t pointOffset) {
  const Octree tree = buildOctree(records, count, recordLength, header.scale, header.offset);
  std::vector<std::uint64_t> sizes;
  sizes.reserve(tree.runs.size());
  for (const Octree::Run& run : tree.runs)
    sizes.push_back(run.count);
  Encoded out;
  std::vector<Laz::Chunk> chunks;
  out.pointData = Laz::encode(reordered(records, recordLength, tree.order).data(), sizes,
                              recordLength, d, pointOffset, chunks);
  out.info = tree.info;
  std::tie(out.info.gpsMin, out.info.gpsMax) = gpsRange(records, count, recordLength);
  for (std::size_t k = 0; k < chunks.size(); ++k)
    appendEntry(out.page, tree.runs[k].key, chunks[k].start, entryValue(chunks[k].bytes, "bytes"),
                entryValue(chunks[k].points, "points"));
  if (chunks.empty()) // a file without points still has its root, empty
    appendEntry(out.page, Key{}, 0, 0, 0);
  return out;
}

void rewriteAsCopc(const std::string& from, const std::string& to, const Las::Warn& warn) {
  struct Removed {
    std::string path;
    ~Removed() { std::filesystem::remove(path); }
  } removed{from};
  Las::WriteOptions options;
  options.warn = warn;
  Las::write(to, *Las::read(from).grid, options);
}

} // namespace Quorvel::Copc
