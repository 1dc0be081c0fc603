// Quorvel: LAZ point data: the "laszip encoded" record, the chunk table that places the chunks,
// and the chunks decoded in parallel, each into its own points' records.
#include "io/laz/Laz.hpp"

#include "io/laz/Common.hpp"
#include "io/laz/Layered.hpp"
#include "io/laz/Pointwise.hpp"

#include <algorithm>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>

namespace Quorvel::Laz {

namespace {

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what);
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
  if (d.compressor == 3)
    return decodeLayeredChunk(file + c.start, c.bytes, d.items,
                              static_cast<std::uint32_t>(c.points), recordLength, out);
  decodePointwiseChunk(file + c.start, c.bytes, d.items, static_cast<std::uint32_t>(c.points),
                       recordLength, out);
}

// The items of a point format's records.
std::vector<Item> itemsFor(int format, std::size_t extraBytes) {
  std::vector<Item> items;
  const auto extra = static_cast<std::uint16_t>(extraBytes);
  switch (format) {
  case 0:
  case 1:
  case 2:
  case 3:
  case 4:
  case 5:
    items.push_back({Point10, 20, 2});
    if (format != 0 && format != 2)
      items.push_back({GpsTime11, 8, 2});
    if (format == 2 || format == 3 || format == 5)
      items.push_back({Rgb12, 6, 2});
    if (format >= 4)
      items.push_back({WavePacket13, 29, 1});
    if (extra)
      items.push_back({Byte, extra, 2});
    return items;
  case 6:
  case 7:
  case 8:
  case 9:
  case 10:
    items.push_back({Point14, 30, 3});
    if (format == 7)
      items.push_back({Rgb14, 6, 3});
    if (format == 8 || format == 10)
      items.push_back({RgbNir14, 8, 3});
    if (format >= 9)
      items.push_back({WavePacket14, 29, 3});
    if (extra)
      items.push_back({Byte14, extra, 3});
    return items;
  default:
    throw std::runtime_error("point format " + std::to_string(format) + " has no LAZ items");
  }
}

} // namespace

Las::Vlr laszipRecord(int format, std::size_t extraBytes, std::uint32_t chunkSize, Description& d) {
  if (extraBytes > 0xFFFF)
    throw std::runtime_error(std::to_string(extraBytes) + " extra bytes do not fit LAZ");
  d.items = itemsFor(format, extraBytes);
  d.compressor = format <= 5 ? 2 : 3;
  d.chunkSize = chunkSize;
  Las::Vlr v;
  v.userId = "laszip encoded";
  v.recordId = 22204;
  v.description = "Quorvel";
  auto& b = v.data;
  put<std::uint16_t>(b, d.compressor);
  put<std::uint16_t>(b, 0); // coder: arithmetic
  b.push_back(3);           // LASzip version 3.4 revision 3, whose items these are
  b.push_back(4);
  put<std::uint16_t>(b, 3);
  put<std::uint32_t>(b, 0); // options
  put<std::uint32_t>(b, chunkSize);
  put<std::int64_t>(b, -1); // points and bytes: not given
  put<std::int64_t>(b, -1);
  put<std::uint16_t>(b, static_cast<std::uint16_t>(d.items.size()));
  for (const Item& item : d.items) {
    put(b, item.type);
    put(b, item.size);
    put(b, item.version);
  }
  return v;
}

std::vector<std::uint8_t> encode(const std::uint8_t* records, std::uint64_t count,
                                 std::size_t recordLength, const Description& d,
                                 std::uint64_t pointOffset) {
  const std::uint64_t chunkPoints = d.chunkSize;
  const std::size_t chunks = static_cast<std::size_t>((count + chunkPoints - 1) / chunkPoints);
  std::vector<std::vector<std::uint8_t>> coded(chunks);
  std::string problem;
  std::mutex mutex;
#pragma omp parallel for schedule(dynamic, 1)
  for (long long k = 0; k < static_cast<long long>(chunks); ++k) {
    const std::uint64_t first = static_cast<std::uint64_t>(k) * chunkPoints;
    try {
      const auto points = static_cast<std::uint32_t>(std::min(chunkPoints, count - first));
      auto& chunk = coded[static_cast<std::size_t>(k)];
      if (d.compressor == 3)
        encodeLayeredChunk(records + first * recordLength, points, d.items, recordLength, chunk);
      else
        encodePointwiseChunk(records + first * recordLength, points, d.items, recordLength, chunk);
    } catch (const std::exception& e) {
      const std::lock_guard<std::mutex> lock(mutex);
      problem = e.what();
    }
  }
  if (!problem.empty())
    fail(problem);
  std::vector<std::uint8_t> out(8);
  for (const auto& c : coded)
    out.insert(out.end(), c.begin(), c.end());
  const std::int64_t tableAt = static_cast<std::int64_t>(pointOffset + out.size());
  std::memcpy(out.data(), &tableAt, 8);
  put<std::uint32_t>(out, 0);
  put<std::uint32_t>(out, static_cast<std::uint32_t>(chunks));
  Encoder e(out);
  IntegerCoder sizes(32, 2);
  std::uint32_t last = 0;
  for (const auto& c : coded) {
    sizes.encode(e, static_cast<std::int32_t>(last), static_cast<std::int32_t>(c.size()), 1);
    last = static_cast<std::uint32_t>(c.size());
  }
  e.done();
  return out;
}

Description describe(const Las::Vlr& record) {
  const std::vector<std::uint8_t>& b = record.data;
  if (b.size() < 34)
    fail("the \"laszip encoded\" record is " + std::to_string(b.size()) + " bytes, too short");
  Description d;
  d.compressor = load<std::uint16_t>(b.data());
  d.chunkSize = load<std::uint32_t>(b.data() + 12);
  const std::uint16_t items = load<std::uint16_t>(b.data() + 32);
  if (b.size() < 34 + 6 * std::size_t(items))
    fail("the \"laszip encoded\" record lists " + std::to_string(items) + " items but holds only " +
         std::to_string((b.size() - 34) / 6));
  for (std::uint16_t k = 0; k < items; ++k) {
    const std::uint8_t* p = b.data() + 34 + 6 * k;
    d.items.push_back(
        {load<std::uint16_t>(p), load<std::uint16_t>(p + 2), load<std::uint16_t>(p + 4)});
  }
  if (d.compressor < 1 || d.compressor > 3)
    fail("compressor " + std::to_string(d.compressor) + " is not supported");
  if (load<std::uint16_t>(b.data() + 2) != 0)
    fail("coder " + std::to_string(load<std::uint16_t>(b.data() + 2)) + " is not supported");
  return d;
}

Points::Points(const std::uint8_t* file, std::uint64_t pointOffset, std::uint64_t end,
               std::uint64_t fileSize, Description d, std::uint64_t pointCount,
               std::size_t recordLength)
    : file_(file), d_(std::move(d)), recordLength_(recordLength) {
  if (pointCount == 0)
    return;
  if (d_.compressor == 1) // one stream of all points, no chunk table
    chunks_.push_back({0, pointCount, pointOffset, end - pointOffset});
  else
    chunks_ = chunkTable(file, pointOffset, end, fileSize, d_, pointCount);
}

// Runs step(k, chunk) for every chunk in parallel; the first chunk that fails is the one
// reported, whatever the threads.
template <class Step>
void Points::inParallel(Step step) const {
  std::mutex mutex;
  std::string problem;
  const long long n = static_cast<long long>(chunks_.size());
  long long failed = n;
#pragma omp parallel for schedule(dynamic, 1)
  for (long long k = 0; k < n; ++k) {
    try {
      step(chunks_[static_cast<std::size_t>(k)]);
    } catch (const std::exception& e) {
      const std::lock_guard<std::mutex> lock(mutex);
      if (k < failed) {
        failed = k;
        problem = "chunk " + std::to_string(k) + " of " + std::to_string(n) + ": " + e.what();
      }
    }
  }
  if (!problem.empty())
    fail(problem);
}

void Points::decode(std::uint8_t* out) const {
  inParallel([&](const Chunk& c) {
    decodeChunk(file_, c, d_, recordLength_, out + c.firstPoint * recordLength_);
  });
}

void Points::decode(const std::function<void(const Chunk&, const std::uint8_t*)>& use) const {
  inParallel([&](const Chunk& c) {
    thread_local std::vector<std::uint8_t> records;
    records.resize(static_cast<std::size_t>(c.points) * recordLength_);
    decodeChunk(file_, c, d_, recordLength_, records.data());
    use(c, records.data());
    if (records.capacity() > (std::size_t(64) << 20)) // a rare huge chunk is not kept
      records = {};
  });
}

} // namespace Quorvel::Laz
