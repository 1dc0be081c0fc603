// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: COPC files read: the info record, the hierarchy pages walked and checked so that a
// box read can trust every node's place, and the nodes that meet a box.
#include "io/detail/copc.hpp"

#include "io/detail/las_header.hpp"
#include "io/laz/common.hpp"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <deque>
#include <set>
#include <tuple>

namespace Quorvel::Copc {

using Laz::load;
using Laz::put;

bool isCopcPath(const std::string& path) {
  static const std::string suffix = ".copc.laz";
  if (path.size() < suffix.size())
    return false;
  return std::equal(suffix.begin(), suffix.end(), path.end() - suffix.size(), [](char a, char b) {
    return a == std::tolower(static_cast<unsigned char>(b));
  });
}

bool isCopcRecord(const Las::Vlr& record) {
  return record.userId == "copc" &&
         (record.recordId == InfoRecordId || record.recordId == HierarchyRecordId);
}

std::array<std::uint8_t, InfoSize> encodeInfo(const Info& info) {
  std::vector<std::uint8_t> out;
  for (double v : {info.center[0], info.center[1], info.center[2], info.halfsize, info.spacing})
    put(out, v);
  put(out, info.rootPageOffset);
  put(out, info.rootPageSize);
  put(out, info.gpsMin);
  put(out, info.gpsMax);
  std::array<std::uint8_t, InfoSize> bytes{}; // 11 reserved words stay zero
  std::memcpy(bytes.data(), out.data(), out.size());
  return bytes;
}

Info decodeInfo(const std::uint8_t* bytes) {
  Info info;
  for (int a = 0; a < 3; ++a)
    info.center[a] = load<double>(bytes + 8 * a);
  info.halfsize = load<double>(bytes + 24);
  info.spacing = load<double>(bytes + 32);
  info.rootPageOffset = load<std::uint64_t>(bytes + 40);
  info.rootPageSize = load<std::uint64_t>(bytes + 48);
  info.gpsMin = load<double>(bytes + 56);
  info.gpsMax = load<double>(bytes + 64);
  return info;
}

void appendEntry(std::vector<std::uint8_t>& page, const Key& key, std::uint64_t offset,
                 std::int32_t bytes, std::int32_t points) {
  for (std::int32_t v : {key.level, key.x, key.y, key.z})
    put(page, v);
  put(page, offset);
  put(page, bytes);
  put(page, points);
}

Box cube(const Info& info, const Key& key) {
  const double side = 2 * info.halfsize / static_cast<double>(std::uint64_t(1) << key.level);
  const std::int32_t at[3] = {key.x, key.y, key.z};
  Box b;
  for (int a = 0; a < 3; ++a) {
    b.min[a] = info.center[a] - info.halfsize + side * at[a];
    b.max[a] = b.min[a] + side;
  }
  return b;
}

namespace {

std::string keyText(const Key& k) {
  return std::to_string(k.level) + "-" + std::to_string(k.x) + "-" + std::to_string(k.y) + "-" +
         std::to_string(k.z);
}

// The header and info record of a COPC file, or nullopt for any other file.
std::optional<std::pair<Las::Header, Info>> copcHead(std::uint64_t fileSize, const Fetch& fetch) {
  if (fileSize < InfoOffset + InfoSize)
    return std::nullopt;
  const std::vector<std::uint8_t> b = fetch(0, InfoOffset + InfoSize);
  const Las::Header h = Las::detail::decodeHeader(b.data(), 375).header;
  const int format = h.pointFormat & 0x3F;
  const char* userId = reinterpret_cast<const char*>(b.data() + 377);
  const bool copc = std::memcmp(b.data(), "LASF", 4) == 0 && h.versionMajor == 1 &&
                    h.versionMinor == 4 && (h.pointFormat & 0x80) && format >= 6 && format <= 8 &&
                    h.headerSize == 375 && h.vlrCount >= 1 &&
                    std::string(userId, strnlen(userId, 16)) == "copc" &&
                    load<std::uint16_t>(b.data() + 393) == InfoRecordId &&
                    load<std::uint16_t>(b.data() + 395) == InfoSize;
  if (!copc)
    return std::nullopt;
  return std::make_pair(h, decodeInfo(b.data() + InfoOffset));
}

// Walks the pages from the root: every node with points, unchecked against one another.
class PageWalk {
public:
  PageWalk(std::uint64_t fileSize, std::uint64_t dataStart, std::uint64_t dataEnd)
      : fileSize_(fileSize), dataStart_(dataStart), dataEnd_(dataEnd) {}

  std::vector<Node> walk(const Info& info, const Fetch& fetch) {
    std::deque<std::pair<std::uint64_t, std::uint64_t>> pages{
        {info.rootPageOffset, info.rootPageSize}};
    while (!pages.empty()) {
      const auto [offset, size] = pages.front();
      pages.pop_front();
      checkPage(offset, size);
      const std::vector<std::uint8_t> page = fetch(offset, size);
      for (std::uint64_t at = 0; at < size; at += EntrySize)
        entry(page.data() + at, pages);
    }
    return std::move(nodes_);
  }

private:
  void checkPage(std::uint64_t offset, std::uint64_t size) {
    const std::string page = "page at byte " + std::to_string(offset);
    if (offset > fileSize_ || size > fileSize_ - offset)
      throw std::runtime_error(page + " of " + std::to_string(size) + " bytes ends past the file");
    if (size % EntrySize != 0)
      throw std::runtime_error(page + " of " + std::to_string(size) +
                               " bytes is not a whole number of 32-byte entries");
    if (!visited_.insert(offset).second)
      throw std::runtime_error(page + " is reached twice (the pages make a cycle)");
    // Pages at distinct offsets could still overlap: their bytes together fit the file.
    pageBytes_ += size;
    if (pageBytes_ > fileSize_)
      throw std::runtime_error("the pages overlap: " + std::to_string(pageBytes_) +
                               " bytes of pages in a file of " + std::to_string(fileSize_));
  }

  void entry(const std::uint8_t* e, std::deque<std::pair<std::uint64_t, std::uint64_t>>& pages) {
    const Key key{load<std::int32_t>(e), load<std::int32_t>(e + 4), load<std::int32_t>(e + 8),
                  load<std::int32_t>(e + 12)};
    const auto offset = load<std::uint64_t>(e + 16);
    const auto bytes = load<std::int32_t>(e + 24);
    const auto points = load<std::int32_t>(e + 28);
    const std::string node = "node " + keyText(key);
    const std::int64_t side = key.level >= 0 && key.level <= 30 ? std::int64_t(1) << key.level : 0;
    if (side == 0 || key.x < 0 || key.y < 0 || key.z < 0 || key.x >= side || key.y >= side ||
        key.z >= side)
      throw std::runtime_error(node + " lies outside the octree");
    if (points < -1 || bytes < 0)
      throw std::runtime_error(node + " has " + std::to_string(points) + " points in " +
                               std::to_string(bytes) + " bytes");
    if (points == -1)
      pages.emplace_back(offset, static_cast<std::uint64_t>(bytes));
    if (points <= 0)
      return;
    if (bytes == 0 || offset < dataStart_ || offset > dataEnd_ ||
        static_cast<std::uint64_t>(bytes) > dataEnd_ - offset)
      throw std::runtime_error(node + " at bytes " + std::to_string(offset) + " to " +
                               std::to_string(offset + static_cast<std::uint64_t>(bytes)) +
                               " lies outside the point data (bytes " + std::to_string(dataStart_) +
                               " to " + std::to_string(dataEnd_) + ")");
    nodes_.push_back(
        {key, offset, static_cast<std::uint64_t>(bytes), static_cast<std::uint64_t>(points)});
  }

  std::uint64_t fileSize_, dataStart_, dataEnd_;
  std::uint64_t pageBytes_ = 0;
  std::set<std::uint64_t> visited_;
  std::vector<Node> nodes_;
};

// Nodes that share bytes or a key, and a point count other than the header's, are errors.
void checkNodes(std::vector<Node>& nodes, std::uint64_t pointCount) {
  std::sort(nodes.begin(), nodes.end(),
            [](const Node& a, const Node& b) { return a.offset < b.offset; });
  std::set<std::tuple<std::int32_t, std::int32_t, std::int32_t, std::int32_t>> keys;
  std::uint64_t points = 0;
  for (std::size_t k = 0; k < nodes.size(); ++k) {
    const Key& key = nodes[k].key;
    if (k > 0 && nodes[k].offset < nodes[k - 1].offset + nodes[k - 1].bytes)
      throw std::runtime_error("nodes " + keyText(nodes[k - 1].key) + " and " + keyText(key) +
                               " overlap at byte " + std::to_string(nodes[k].offset));
    if (!keys.emplace(key.level, key.x, key.y, key.z).second)
      throw std::runtime_error("node " + keyText(key) + " is listed twice");
    points += nodes[k].points;
  }
  if (points != pointCount)
    throw std::runtime_error("the nodes hold " + std::to_string(points) +
                             " points, the header says " + std::to_string(pointCount));
}

} // namespace

std::optional<Hierarchy> copcHierarchy(const std::string& path, std::uint64_t fileSize,
                                       const Fetch& fetch) {
  try {
    const auto head = copcHead(fileSize, fetch);
    if (!head)
      return std::nullopt;
    const Las::Header& h = head->first;
    // The chunks lie after the chunk table's offset and before the EVLRs, if any.
    const std::uint64_t start = std::uint64_t(h.pointOffset) + 8;
    const std::uint64_t end = h.evlrCount > 0 && h.evlrOffset > h.pointOffset
                                  ? std::min(h.evlrOffset, fileSize)
                                  : fileSize;
    Hierarchy out{head->second, PageWalk(fileSize, start, end).walk(head->second, fetch)};
    checkNodes(out.nodes, h.pointCount);
    return out;
  } catch (const std::runtime_error& e) {
    throw Las::Error(path + ": COPC hierarchy: " + e.what());
  }
}

std::vector<Node> nodesMeeting(const Hierarchy& hierarchy, const Box& box) {
  std::vector<Node> out;
  for (const Node& n : hierarchy.nodes) {
    const Box c = cube(hierarchy.info, n.key);
    bool meets = true;
    for (int a = 0; a < 3; ++a)
      meets = meets && c.min[a] <= box.max[a] && box.min[a] <= c.max[a];
    if (meets)
      out.push_back(n);
  }
  return out;
}

} // namespace Quorvel::Copc
