// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: COPC (cloud-optimized point cloud) files: LAZ files of LAS 1.4 whose point data is an
// octree of nodes, each node one LAZ chunk, listed with its place in the file by a hierarchy of
// pages. A box of a large file is read by decoding only the chunks of the nodes that meet it.
#pragma once

#include "io/las.hpp"
#include "io/laz/laz.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Copc {

// A path that names a COPC file: it ends in ".copc.laz", in any case.
bool isCopcPath(const std::string& path);

// The records that describe the layout of one COPC file (the info VLR, user id "copc" record 1,
// and the hierarchy EVLR, record 1000): a reader leaves them out, a writer makes them anew.
bool isCopcRecord(const Las::Vlr& record);
constexpr std::uint16_t InfoRecordId = 1;
constexpr std::uint16_t HierarchyRecordId = 1000;

// The "copc info" record: the octree's root cube, the sampling of its root, the root page of the
// hierarchy and the range of GPS times.
struct Info {
  std::array<double, 3> center{0, 0, 0};
  double halfsize = 0; // the root cube is center +- halfsize on every axis
  double spacing = 0;  // distance between the points the root keeps
  std::uint64_t rootPageOffset = 0, rootPageSize = 0;
  double gpsMin = 0, gpsMax = 0;
};
constexpr std::size_t InfoSize = 160;
// Where the info record's data lies: right after the LAS 1.4 header and the first VLR's header.
constexpr std::uint64_t InfoOffset = 375 + 54;
std::array<std::uint8_t, InfoSize> encodeInfo(const Info& info);
Info decodeInfo(const std::uint8_t* bytes);

// A node of the octree: its level (0 for the root) and its place among the 2^level cubes per
// axis of that level.
struct Key {
  std::int32_t level = 0, x = 0, y = 0, z = 0;
  bool operator==(const Key&) const = default;
};

// A node as the hierarchy lists it: its key, the chunk that holds its points (file offset and
// bytes) and how many points it holds.
struct Node {
  Key key;
  std::uint64_t offset = 0, bytes = 0, points = 0;
};
// One hierarchy entry as stored: 32 bytes. points -1 marks a child page at offset, bytes long.
constexpr std::size_t EntrySize = 32;
void appendEntry(std::vector<std::uint8_t>& page, const Key& key, std::uint64_t offset,
                 std::int32_t bytes, std::int32_t points);

// A closed box; z unbounded by default, for a box in x and y.
struct Box {
  std::array<double, 3> min{0, 0, -std::numeric_limits<double>::infinity()};
  std::array<double, 3> max{0, 0, std::numeric_limits<double>::infinity()};
};
// The cube of a node.
Box cube(const Info& info, const Key& key);

struct Hierarchy {
  Info info;
  std::vector<Node> nodes; // every node with points, by file offset
};

// The bytes [offset, offset + size) of the file; called only for ranges inside the file, and
// must return exactly size bytes (a mapped file's copy, a pread). May throw std::runtime_error.
using Fetch = std::function<std::vector<std::uint8_t>(std::uint64_t offset, std::uint64_t size)>;

// The hierarchy of the file at path (named in errors only), of fileSize bytes read through
// fetch. nullopt when the file is not COPC: not LAS 1.4, not LAZ of point format 6 to 8, or its
// first VLR not the "copc info" record. Throws Las::Error naming the file and the problem for a
// hierarchy that cannot be trusted: pages outside the file or each other's, a page reached
// twice (a cycle), nodes outside the point data or overlapping one another, keys outside their
// level, point counts that disagree with the header's.
// The box read decodes the chunk of each node it wants: the chunk whose start (Laz::Chunk::start)
// equals the node's offset; nodes of the hierarchy and chunks of the chunk table are the same
// byte ranges in a file written here, and the check above makes any other file safe to index.
std::optional<Hierarchy> copcHierarchy(const std::string& path, std::uint64_t fileSize,
                                       const Fetch& fetch);

// The nodes of the hierarchy whose cube meets the closed box (touching counts), by file offset.
std::vector<Node> nodesMeeting(const Hierarchy& hierarchy, const Box& box);

// How points are shared among the nodes of a file written here: the order of the records in the
// file (record indices of the input), node after node, each node a run of that order.
struct Octree {
  Info info; // center, halfsize and spacing; the rest is the writer's
  struct Run {
    Key key;
    std::uint64_t first = 0, count = 0;
  };
  std::vector<Run> runs;
  std::vector<std::uint64_t> order;
};
// The octree of count LAS point records (their first 12 bytes the integer x, y and z) with the
// header's scale and offset; see copc_octree.cpp for how points are shared out.
Octree buildOctree(const std::uint8_t* records, std::uint64_t count, std::size_t recordLength,
                   const std::array<double, 3>& scale, const std::array<double, 3>& offset);

// The point data of a COPC file whose point data starts at pointOffset, of records in input
// order, compressed as d describes (variable chunks): the LAZ point data, the info record's
// data (the root page offset still to be set by the writer), and the one hierarchy page.
struct Encoded {
  std::vector<std::uint8_t> pointData;
  Info info;
  std::vector<std::uint8_t> page;
};
Encoded encodePoints(const std::uint8_t* records, std::uint64_t count, std::size_t recordLength,
                     const Las::Header& header, const Laz::Description& d,
                     std::uint64_t pointOffset);

// Writes the points of the LAS or LAZ file `from` as the COPC file `to` (its octree orders them
// all, so they are read whole) and removes `from`, whether or not writing succeeds; warn receives
// the format `to` moves to. The streams write COPC this way, from a file of their own.
void rewriteAsCopc(const std::string& from, const std::string& to, const Las::Warn& warn);

} // namespace Quorvel::Copc
