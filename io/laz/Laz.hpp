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

// What the "laszip encoded" record says.
struct Description {
  std::uint16_t compressor = 0; // 1: pointwise, 2: pointwise in chunks, 3: layered in chunks
  std::uint32_t chunkSize = 0;  // points per chunk; VariableChunks: sizes in the chunk table
  std::vector<Item> items;
  static constexpr std::uint32_t VariableChunks = 0xFFFFFFFFu;
};

inline bool isLaszipRecord(const Las::Vlr& v) {
  return v.userId == "laszip encoded" && v.recordId == 22204;
}

// The description of a record; throws std::runtime_error naming what is wrong.
Description describe(const Las::Vlr& record);

// A chunk: its first point, its points and where its bytes lie in the file.
struct Chunk {
  std::uint64_t firstPoint = 0, points = 0, start = 0, bytes = 0;
};

// The compressed point data of a file: pointCount records of recordLength bytes from
// file[pointOffset ...] up to end (where the EVLRs begin or the file ends), its chunks placed by
// the chunk table. The constructor throws std::runtime_error naming what is wrong with the table;
// decoding throws it naming the first chunk that does not decode (or whose items are not
// supported), whatever the threads: no chunk is ever left as zeros.
class Points {
public:
  Points(const std::uint8_t* file, std::uint64_t pointOffset, std::uint64_t end,
         std::uint64_t fileSize, Description d, std::uint64_t pointCount, std::size_t recordLength);

  // Every record, into out; chunks in parallel.
  void decode(std::uint8_t* out) const;
  // Every chunk decoded, in parallel, into a buffer of its thread, then handed to
  // use(chunk, records), which may run on several threads at once.
  void decode(const std::function<void(const Chunk&, const std::uint8_t*)>& use) const;

private:
  template <class Step>
  void inParallel(Step step) const;

  const std::uint8_t* file_;
  Description d_;
  std::size_t recordLength_;
  std::vector<Chunk> chunks_;
};

// The "laszip encoded" record of point format (0 to 10) records with extraBytes bytes beyond the
// format's, in chunks of chunkSize points, and what it describes; throws std::runtime_error for a
// format the encoder does not write.
Las::Vlr laszipRecord(int format, std::size_t extraBytes, std::uint32_t chunkSize, Description& d);

// The point data of a LAZ file whose points start at byte pointOffset: the offset of the chunk
// table, the chunks (encoded in parallel) and the chunk table.
std::vector<std::uint8_t> encode(const std::uint8_t* records, std::uint64_t count,
                                 std::size_t recordLength, const Description& d,
                                 std::uint64_t pointOffset);

} // namespace Quorvel::Laz
