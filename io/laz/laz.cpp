// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAZ point data: the "laszip encoded" record, the chunk table that places the chunks,
// and the chunks decoded in parallel, each into its own points' records.
#include "io/laz/laz.hpp"

#include "io/laz/common.hpp"
#include "io/laz/layered.hpp"
#include "io/laz/pointwise.hpp"
#include "quorvel/core/parallel.hpp"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel::Laz {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what);
}

// Runs work(k) for k in [0, count) on the runtime's threads, chunkOf(k) giving the number and the
// points of the chunk that k works on. Of the chunks that fail, the lowest k is the one reported,
// whatever the threads: "chunk <number> of <total>: " and why.
template <class ChunkOf, class Work>
void inChunks(std::size_t count, std::size_t total, const ChunkOf& chunkOf, const Work& work) {
  FirstError errors;
  forEachItem(count, allThreads(), errors, [&](std::size_t k) {
    try {
      work(k);
    } catch (const std::bad_alloc&) {
      fail("out of memory for its " + std::to_string(chunkOf(k).second) + " points");
    }
  });
  if (!errors.empty())
    fail("chunk " + std::to_string(chunkOf(errors.index()).first) + " of " + std::to_string(total) +
         ": " + errors.message());
}

// The most points a chunk's bytes can hold. A chunk stores its first record raw; every later
// point codes at least one symbol of 64 (or of 128: the changed fields) and three integers (x, y,
// z), each a symbol of 33 and a bit. LASzip's models keep every symbol's count at 1 or more of at
// most 2^15 (a bit's at 1 of 2^13), so no point costs less than about 0.0075 bits: 1,062 points a
// byte. Twice that leaves room for the coder's rounding.
constexpr std::uint64_t MostPointsPerByte = 2048;

// The bytes of a chunk's end that the encoder writes and the decoder may leave unread.
constexpr std::size_t MostBytesLeft = 1;

// Refuses a chunk given more points than its bytes can hold, before anything is sized from the
// count (a header or chunk table claiming millions of points in a few bytes).
void checkRoom(const std::vector<Chunk>& chunks) {
  for (std::size_t k = 0; k < chunks.size(); ++k) {
    const Chunk& c = chunks[k];
    const std::uint64_t most = c.bytes > (~std::uint64_t(0) - 1) / MostPointsPerByte
                                   ? ~std::uint64_t(0)
                                   : 1 + c.bytes * MostPointsPerByte;
    if (c.points > most)
      fail("chunk " + std::to_string(k) + " of " + std::to_string(chunks.size()) + " holds " +
           std::to_string(c.bytes) + " bytes, too few for the " + std::to_string(c.points) +
           " points it is given (at most " + std::to_string(most) + ", " +
           std::to_string(MostPointsPerByte) + " a byte)");
  }
}

// Reads the chunk table that the point data's first 8 bytes point to (or, when they hold -1, the
// last 8 bytes of the file) and places every chunk.
std::vector<Chunk> chunkTable(const std::uint8_t* file, std::uint64_t pointOffset,
                              std::uint64_t end, std::uint64_t fileSize, const Description& d,
                              std::uint64_t pointCount) {
  if (end < pointOffset || end - pointOffset < 8)
    fail("the point data ends before the offset of the chunk table");
  auto tableAt = load<std::int64_t>(file + pointOffset);
  if (tableAt == -1 && fileSize >= 8)
    tableAt = load<std::int64_t>(file + fileSize - 8);
  if (tableAt < 0 || static_cast<std::uint64_t>(tableAt) < pointOffset + 8 ||
      static_cast<std::uint64_t>(tableAt) > fileSize || fileSize - tableAt < 8)
    fail("the chunk table's offset " + std::to_string(tableAt) + " lies outside the file");
  const std::uint8_t* table = file + tableAt;
  if (load<std::uint32_t>(table) != 0)
    fail("chunk table version " + std::to_string(load<std::uint32_t>(table)) + " is not supported");
  const std::uint32_t count = load<std::uint32_t>(table + 4);
  if (pointCount == 0 && count > 0)
    fail("the header says 0 points, the chunk table lists " + std::to_string(count) + " chunks");
  // Every chunk holds a byte at least: a count beyond the bytes is not believed (nor sized from).
  const std::uint64_t dataBytes = static_cast<std::uint64_t>(tableAt) - pointOffset - 8;
  if (count > dataBytes)
    fail("the chunk table lists " + std::to_string(count) + " chunks, more than the " +
         std::to_string(dataBytes) + " bytes of point data can hold");
  if (count == 0 && pointCount != 0)
    fail("the chunk table lists no chunk for " + std::to_string(pointCount) + " points");
  const bool variable = d.chunkSize == Description::VariableChunks;
  if (!variable && (d.chunkSize == 0 || (pointCount + d.chunkSize - 1) / d.chunkSize != count))
    fail("the chunk table lists " + std::to_string(count) + " chunks, " +
         std::to_string(pointCount) + " points in chunks of " + std::to_string(d.chunkSize) +
         " need " + std::to_string(d.chunkSize ? (pointCount + d.chunkSize - 1) / d.chunkSize : 0));
  Decoder decoder(table + 8, fileSize - tableAt - 8);
  decoder.start();
  IntegerCoder sizes(32, 2);
  std::vector<Chunk> chunks(count);
  std::uint32_t lastCount = 0, lastBytes = 0;
  std::uint64_t point = 0, at = pointOffset + 8;
  for (Chunk& c : chunks) {
    if (variable)
      lastCount = static_cast<std::uint32_t>(
          sizes.decode(decoder, static_cast<std::int32_t>(lastCount), 0));
    lastBytes =
        static_cast<std::uint32_t>(sizes.decode(decoder, static_cast<std::int32_t>(lastBytes), 1));
    c.firstPoint = point;
    c.points = variable ? lastCount : std::min<std::uint64_t>(d.chunkSize, pointCount - point);
    c.start = at;
    c.bytes = lastBytes;
    point += c.points;
    at += c.bytes;
  }
  if (decoder.overran())
    fail("the chunk table is truncated");
  if (point != pointCount)
    fail("the chunks hold " + std::to_string(point) + " points, the header says " +
         std::to_string(pointCount));
  if (at > static_cast<std::uint64_t>(tableAt) || at > end)
    fail("the chunks (" + std::to_string(at - pointOffset - 8) +
         " bytes) run past the chunk table");
  return chunks;
}

// Decodes the chunk's records into out.
void decodeChunk(const std::uint8_t* file, const Chunk& c, const Description& d,
                 std::size_t recordLength, std::uint8_t* out) {
  if (d.compressor == Compressor::LayeredChunked)
    return decodeLayeredChunk(file + c.start, c.bytes, d.items,
                              static_cast<std::uint32_t>(c.points), recordLength, out);
  const std::size_t left = decodePointwiseChunk(
      file + c.start, c.bytes, d.items, static_cast<std::uint32_t>(c.points), recordLength, out);
  // Bytes left in a chunk (not the one stream of all points, which may run on to the end of the
  // file) are points the file does not count, as when the header's count is short.
  if (d.compressor == Compressor::PointwiseChunked && left > MostBytesLeft)
    fail(std::to_string(left) + " of its " + std::to_string(c.bytes) +
         " bytes are left after its " + std::to_string(c.points) +
         " points: it holds more points than the file counts");
}

} // namespace

void appendChunkTable(std::vector<std::uint8_t>& out, const std::vector<Chunk>& chunks,
                      bool variable) {
  put<std::uint32_t>(out, 0);
  put<std::uint32_t>(out, static_cast<std::uint32_t>(chunks.size()));
  Encoder e(out);
  IntegerCoder sizes(32, 2);
  std::uint32_t lastCount = 0, lastBytes = 0;
  for (const Chunk& c : chunks) {
    if (variable) {
      sizes.encode(e, static_cast<std::int32_t>(lastCount), static_cast<std::int32_t>(c.points), 0);
      lastCount = static_cast<std::uint32_t>(c.points);
    }
    sizes.encode(e, static_cast<std::int32_t>(lastBytes), static_cast<std::int32_t>(c.bytes), 1);
    lastBytes = static_cast<std::uint32_t>(c.bytes);
  }
  e.done();
}

std::vector<std::vector<std::uint8_t>> encodeChunks(const std::uint8_t* records,
                                                    const std::vector<std::uint64_t>& chunkPoints,
                                                    std::size_t recordLength,
                                                    const Description& d) {
  std::vector<std::uint64_t> first(chunkPoints.size(), 0);
  for (std::size_t k = 1; k < first.size(); ++k)
    first[k] = first[k - 1] + chunkPoints[k - 1];
  std::vector<std::vector<std::uint8_t>> coded(chunkPoints.size());
  const auto chunkOf = [&](std::size_t k) { return std::pair(k, chunkPoints[k]); };
  inChunks(coded.size(), coded.size(), chunkOf, [&](std::size_t k) {
    coded[k] = encodeChunk(records + first[k] * recordLength,
                           static_cast<std::uint32_t>(chunkPoints[k]), recordLength, d);
  });
  return coded;
}

std::vector<std::uint8_t> encodeChunk(const std::uint8_t* records, std::uint32_t points,
                                      std::size_t recordLength, const Description& d) {
  // Coded into a vector of its own: the coder grows it byte by byte, and the vectors of chunks
  // coded side by side would share a cache line between the threads at every byte.
  std::vector<std::uint8_t> bytes;
  if (d.compressor == Compressor::LayeredChunked)
    encodeLayeredChunk(records, points, d.items, recordLength, bytes);
  else
    encodePointwiseChunk(records, points, d.items, recordLength, bytes);
  return bytes;
}

std::vector<std::uint64_t> chunkSizes(std::uint64_t count, std::uint64_t chunkPoints) {
  std::vector<std::uint64_t> sizes(
      static_cast<std::size_t>((count + chunkPoints - 1) / chunkPoints), chunkPoints);
  if (!sizes.empty())
    sizes.back() = count - (sizes.size() - 1) * chunkPoints;
  return sizes;
}

std::vector<std::uint8_t> encode(const std::uint8_t* records, std::uint64_t count,
                                 std::size_t recordLength, const Description& d,
                                 std::uint64_t pointOffset) {
  std::vector<Chunk> chunks;
  return encode(records, chunkSizes(count, d.chunkSize), recordLength, d, pointOffset, chunks);
}

std::vector<std::uint8_t> encode(const std::uint8_t* records,
                                 const std::vector<std::uint64_t>& chunkPoints,
                                 std::size_t recordLength, const Description& d,
                                 std::uint64_t pointOffset, std::vector<Chunk>& chunks) {
  return joinChunks(encodeChunks(records, chunkPoints, recordLength, d), chunkPoints, d,
                    pointOffset, chunks);
}

std::vector<std::uint8_t> joinChunks(const std::vector<std::vector<std::uint8_t>>& coded,
                                     const std::vector<std::uint64_t>& chunkPoints,
                                     const Description& d, std::uint64_t pointOffset,
                                     std::vector<Chunk>& chunks) {
  chunks.assign(chunkPoints.size(), Chunk{});
  std::size_t bytes = 8;
  for (const auto& chunk : coded)
    bytes += chunk.size();
  std::vector<std::uint8_t> out(8);
  out.reserve(bytes + 8 + 8 * coded.size()); // the chunk table's few bytes a chunk beyond
  for (std::size_t k = 0; k < coded.size(); ++k) {
    chunks[k].firstPoint = k ? chunks[k - 1].firstPoint + chunkPoints[k - 1] : 0;
    chunks[k].points = chunkPoints[k];
    chunks[k].start = pointOffset + out.size();
    chunks[k].bytes = coded[k].size();
    out.insert(out.end(), coded[k].begin(), coded[k].end());
  }
  const std::int64_t tableAt = static_cast<std::int64_t>(pointOffset + out.size());
  std::memcpy(out.data(), &tableAt, 8);
  appendChunkTable(out, chunks, d.chunkSize == Description::VariableChunks);
  return out;
}

Points::Points(const std::uint8_t* file, std::uint64_t pointOffset, std::uint64_t end,
               std::uint64_t fileSize, Description d, std::uint64_t pointCount,
               std::size_t recordLength)
    : file_(file), d_(std::move(d)), recordLength_(recordLength) {
  if (pointCount == 0) {
    // A header count of 0 is believed unless a readable chunk table lists chunks.
    try {
      chunkTable(file, pointOffset, end, fileSize, d_, 0);
    } catch (const std::runtime_error& e) {
      if (std::string(e.what()).starts_with("the header says 0"))
        throw;
    }
    return;
  }
  if (d_.compressor == Compressor::Pointwise) // one stream of all points, no chunk table
    chunks_.push_back({0, pointCount, pointOffset, end - pointOffset});
  else
    chunks_ = chunkTable(file, pointOffset, end, fileSize, d_, pointCount);
  checkRoom(chunks_);
}

// Runs step(chunk, k) for every chunk (or the listed ones, k their place in the list) in
// parallel; the first chunk that fails is the one reported, whatever the threads.
template <class Step>
void Points::inParallel(const std::vector<std::size_t>* which, Step step) const {
  const std::size_t n = which ? which->size() : chunks_.size();
  std::vector<std::uint64_t> points(n);
  std::vector<std::size_t> numbers(n);
  for (std::size_t k = 0; k < n; ++k) {
    numbers[k] = which ? (*which)[k] : k;
    points[k] = chunks_[numbers[k]].points;
  }
  inChunks(
      n, chunks_.size(), [&](std::size_t k) { return std::pair(numbers[k], points[k]); },
      [&](std::size_t k) { step(chunks_[numbers[k]], k); });
}

void Points::decode(std::uint8_t* out) const {
  inParallel(nullptr, [&](const Chunk& c, std::size_t) {
    decodeChunk(file_, c, d_, recordLength_, out + c.firstPoint * recordLength_);
  });
}

void Points::decode(const std::function<void(const Chunk&, const std::uint8_t*)>& use) const {
  inParallel(nullptr, [&](const Chunk& c, std::size_t) {
    thread_local std::vector<std::uint8_t> records;
    records.resize(static_cast<std::size_t>(c.points) * recordLength_);
    decodeChunk(file_, c, d_, recordLength_, records.data());
    use(c, records.data());
    if (records.capacity() > (std::size_t(64) << 20)) // a rare huge chunk is not kept
      records = {};
  });
}

void Points::decode(const std::vector<std::size_t>& which, std::uint8_t* out) const {
  std::vector<std::uint64_t> at(which.size() + 1, 0); // where each listed chunk's records go
  for (std::size_t k = 0; k < which.size(); ++k)
    at[k + 1] = at[k] + chunks_[which[k]].points * recordLength_;
  inParallel(&which, [&](const Chunk& c, std::size_t k) {
    decodeChunk(file_, c, d_, recordLength_, out + at[k]);
  });
}

} // namespace Quorvel::Laz
