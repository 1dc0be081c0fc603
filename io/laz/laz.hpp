// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LASzip-compressed point data (LAZ): the "laszip encoded" record that describes it,
// the chunk table, and the decoding of the chunks, in parallel, into plain point records.
#pragma once

#include "io/las.hpp"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Quorvel::Laz {

// One item of a compressed record, as the record lists them.
struct Item {
  std::uint16_t type = 0, size = 0, version = 0;
};

// Item types of the LASzip format.
enum ItemType : std::uint16_t {
  Byte = 0,
  Point10 = 6,
  GpsTime11 = 7,
  Rgb12 = 8,
  WavePacket13 = 9,
  Point14 = 10,
  Rgb14 = 11,
  RgbNir14 = 12,
  WavePacket14 = 13,
  Byte14 = 14
};

// How the point data is compressed, with LASzip's numbers.
enum class Compressor : std::uint16_t {
  None = 0,             // not compressed (never in a LAZ file)
  Pointwise = 1,        // one stream of all points, no chunk table
  PointwiseChunked = 2, // point formats 0 to 5 in chunks
  LayeredChunked = 3    // point formats 6 to 10 in chunks, each item in its layers
};

// What the "laszip encoded" record says, field by field.
struct Description {
  Compressor compressor = Compressor::None;
  std::uint16_t coder = 0; // 0: arithmetic, the only one
  std::uint8_t versionMajor = 0, versionMinor = 0;
  std::uint16_t revision = 0; // of the LASzip that wrote the file
  std::uint32_t options = 0;
  std::uint32_t chunkSize = 0;    // points per chunk; VariableChunks: sizes in the chunk table
  std::int64_t specialEvlrs = -1; // number of special EVLRs; -1: none given
  std::int64_t evlrOffset = -1;   // where they start; -1: none given
  std::vector<Item> items;
  static constexpr std::uint32_t VariableChunks = 0xFFFFFFFFu;
};

inline bool isLaszipRecord(const Las::Vlr& v) {
  return v.userId == "laszip encoded" && v.recordId == 22204;
}

// The description of a record; throws std::runtime_error naming the first thing wrong.
Description describe(const Las::Vlr& record);

// What is wrong with the description read from a record of recordBytes bytes that lists
// listedItems items: every problem, first the one a reader meets first; none when it can be
// decoded.
std::vector<std::string> validate(const Description& d, std::size_t recordBytes,
                                  std::size_t listedItems);

// What contradicts records of point format (0 to 10) with extraBytes bytes beyond the format's
// in the items d lists (their types and sizes, in order), which would decode the bytes as other
// fields; empty when nothing does.
std::string contradiction(const Description& d, int format, std::size_t extraBytes);

// A chunk: its first point, its points and where its bytes lie in the file.
struct Chunk {
  std::uint64_t firstPoint = 0, points = 0, start = 0, bytes = 0;
};

// The compressed point data of a file: pointCount records of recordLength bytes from
// file[pointOffset ...] up to end (where the EVLRs begin or the file ends), its chunks placed by
// the chunk table. The constructor throws std::runtime_error naming what is wrong with the table;
// decoding throws it naming the first chunk that does not decode (or whose items are not
// supported), whatever the threads: no chunk is ever left as zeros.
// Appends the chunk table of the chunks (version 0, their count, then their sizes coded; with
// variable chunks their point counts too) to out.
void appendChunkTable(std::vector<std::uint8_t>& out, const std::vector<Chunk>& chunks,
                      bool variable);

class Points {
public:
  Points(const std::uint8_t* file, std::uint64_t pointOffset, std::uint64_t end,
         std::uint64_t fileSize, Description d, std::uint64_t pointCount, std::size_t recordLength);

  // Every record, into out; chunks in parallel.
  void decode(std::uint8_t* out) const;
  // Every chunk decoded, in parallel, into a buffer of its thread, then handed to
  // use(chunk, records), which may run on several threads at once.
  void decode(const std::function<void(const Chunk&, const std::uint8_t*)>& use) const;
  // The chunks listed (indices into chunks()), decoded in parallel into out one after another.
  void decode(const std::vector<std::size_t>& which, std::uint8_t* out) const;

  const std::vector<Chunk>& chunks() const { return chunks_; }

private:
  template <class Step>
  void inParallel(const std::vector<std::size_t>* which, Step step) const;

  const std::uint8_t* file_;
  Description d_;
  std::size_t recordLength_;
  std::vector<Chunk> chunks_;
};

// The "laszip encoded" record of point format (0 to 10) records with extraBytes bytes beyond the
// format's, in chunks of chunkSize points, and what it describes; throws std::runtime_error for a
// format the encoder does not write.
Las::Vlr laszipRecord(int format, std::size_t extraBytes, std::uint32_t chunkSize, Description& d);

// Records in chunks of the given point counts, one after another, each chunk encoded, in
// parallel.
std::vector<std::vector<std::uint8_t>> encodeChunks(const std::uint8_t* records,
                                                    const std::vector<std::uint64_t>& chunkPoints,
                                                    std::size_t recordLength, const Description& d);
// One chunk of points records, encoded.
std::vector<std::uint8_t> encodeChunk(const std::uint8_t* records, std::uint32_t points,
                                      std::size_t recordLength, const Description& d);
// count points in chunks of chunkPoints, the last one shorter.
std::vector<std::uint64_t> chunkSizes(std::uint64_t count, std::uint64_t chunkPoints);

// The point data of a LAZ file whose points start at byte pointOffset: the offset of the chunk
// table, the chunks (encoded in parallel) and the chunk table.
std::vector<std::uint8_t> encode(const std::uint8_t* records, std::uint64_t count,
                                 std::size_t recordLength, const Description& d,
                                 std::uint64_t pointOffset);
// The same with chunks of the given point counts (each below 2^32, as the chunk table stores
// them), in order; chunks receives each chunk's first point, points, start in the file and bytes.
// With variable chunks (d.chunkSize == VariableChunks) the chunk table holds the counts too.
std::vector<std::uint8_t> encode(const std::uint8_t* records,
                                 const std::vector<std::uint64_t>& chunkPoints,
                                 std::size_t recordLength, const Description& d,
                                 std::uint64_t pointOffset, std::vector<Chunk>& chunks);
// The point data of chunks of the given point counts encoded already (coded[k] chunk k), as
// encode makes it.
std::vector<std::uint8_t> joinChunks(const std::vector<std::vector<std::uint8_t>>& coded,
                                     const std::vector<std::uint64_t>& chunkPoints,
                                     const Description& d, std::uint64_t pointOffset,
                                     std::vector<Chunk>& chunks);

} // namespace Quorvel::Laz
