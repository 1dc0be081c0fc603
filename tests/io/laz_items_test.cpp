// SPDX-License-Identifier: BSD-3-Clause
// Tests of the LAZ item coders on their own, below the chunks: LASzip's bytes decoded item by item
// against the records the LAS partners hold (read by the test's own parser); GPS time and return
// sequences of every kind coded and decoded; the "laszip encoded" record against its byte layout;
// files of chunks of differing sizes read, and malformed chunk tables refused with their reason.
#include "io/las.hpp"

#include "io/laz/gps_time.hpp"
#include "io/laz/laz.hpp"
#include "io/laz/point14.hpp"
#include "io/laz/pointwise.hpp"
#include "io/laz/pointwise_v1.hpp"
#include "las_bytes.hpp"
#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>

namespace {

using namespace Quorvel;
namespace fs = std::filesystem;

const fs::path Sample = QUORVEL_SAMPLE_DATA;

LasBytes::File lasOf(const fs::path& path) {
  std::string error;
  LasBytes::File f = LasBytes::parse(LasBytes::bytesOf(path.string()), error);
  EXPECT_EQ(error, "") << path;
  return f;
}

template <class T>
T at(const std::uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// The "laszip encoded" record of a LAZ file, found by walking its VLRs.
Las::Vlr laszipOf(const std::vector<std::uint8_t>& b) {
  Las::Vlr v;
  const auto vlrs = at<std::uint32_t>(b.data() + 100);
  for (std::size_t pos = at<std::uint16_t>(b.data() + 94), k = 0; k < vlrs; ++k) {
    const auto length = at<std::uint16_t>(b.data() + pos + 20);
    if (std::memcmp(b.data() + pos + 2, "laszip encoded", 14) == 0) {
      v.userId = "laszip encoded";
      v.recordId = at<std::uint16_t>(b.data() + pos + 18);
      v.data.assign(b.begin() + static_cast<long>(pos) + 54,
                    b.begin() + static_cast<long>(pos) + 54 + length);
    }
    pos += 54 + length;
  }
  return v;
}

// The chunks of a LAZ file, by first point, as its chunk table places them.
std::vector<Laz::Chunk> chunksOf(const std::vector<std::uint8_t>& b, std::size_t recordLength,
                                 std::uint64_t count) {
  Laz::Points points(b.data(), at<std::uint32_t>(b.data() + 96), b.size(), b.size(),
                     Laz::describe(laszipOf(b)), count, recordLength);
  std::vector<Laz::Chunk> chunks;
  std::mutex mutex;
  points.decode([&](const Laz::Chunk& c, const std::uint8_t*) {
    const std::lock_guard<std::mutex> lock(mutex);
    chunks.push_back(c);
  });
  std::sort(chunks.begin(), chunks.end(),
            [](const Laz::Chunk& a, const Laz::Chunk& b) { return a.firstPoint < b.firstPoint; });
  return chunks;
}

// times-v1.laz holds times.las's records (format 3) in chunks of 100 points, items of version 1
// (LASzip 1.x): every chunk decoded with the point, GPS time and colour items by hand, the times
// (repeats, small and large steps, steps back, jumps) and returns compared with the LAS records.
TEST(LazItems, GpsTimesOfItemsVersion1DecodeAsLaszipCodedThem) {
  const auto las = lasOf(Sample / "times.las");
  const auto laz = LasBytes::bytesOf((Sample / "times-v1.laz").string());
  ASSERT_EQ(las.recordLength, 34u);
  const auto chunks = chunksOf(laz, 34, las.pointCount);
  ASSERT_EQ(chunks.size(), 11u);
  std::size_t timesChecked = 0;
  for (const Laz::Chunk& c : chunks) {
    Laz::Decoder d(laz.data() + c.start, c.bytes);
    std::array<std::uint8_t, 34> record{};
    ASSERT_TRUE(d.rawBytes(record.data(), 34));
    Laz::PointItemV1 point;
    Laz::GpsTimeItemV1 time;
    Laz::RgbItemV1 rgb;
    point.first(record.data());
    time.first(record.data() + 20);
    rgb.first(record.data() + 28);
    d.start();
    for (std::uint64_t i = c.firstPoint + 1; i < c.firstPoint + c.points; ++i) {
      point.next(d, record.data());
      time.next(d, record.data() + 20);
      rgb.next(d, record.data() + 28);
      const std::uint8_t* expected = las.record(i);
      ASSERT_EQ(at<std::int64_t>(record.data() + 20), at<std::int64_t>(expected + 20))
          << "point " << i;
      ASSERT_EQ(record[14], expected[14]) << "returns of point " << i;
      ++timesChecked;
    }
    EXPECT_FALSE(d.overran());
  }
  EXPECT_EQ(timesChecked, las.pointCount - chunks.size());
}

// The channel POINT14 gives the items after it: before version 4 the channel only when it changed
// with this point, channel 0 otherwise (as LASzip 3 passes it on); from version 4 always.
unsigned contextOf(const std::uint8_t* record, const std::uint8_t* before, bool version4) {
  const unsigned k = (record[15] >> 4) & 3, last = (before[15] >> 4) & 3;
  return version4 || k != last ? k : 0;
}

// The first chunk of a file LASzip wrote with the layered compressor, its POINT14 decoded alone
// (its layers first, then the sizes of the `others` layers of the items after it) against the LAS
// records: returns that change, scanner channels that switch, times that repeat.
void expectPoint14Decoded(const fs::path& lazPath, const fs::path& lasPath, bool version4,
                          std::size_t others) {
  const auto las = lasOf(lasPath);
  const auto laz = LasBytes::bytesOf(lazPath.string());
  const Laz::Chunk c = chunksOf(laz, las.recordLength, las.pointCount).front();
  Laz::ChunkReader in(laz.data() + c.start, c.bytes);
  Laz::Point14Item point(version4);
  point.first(in.take(las.recordLength));
  ASSERT_EQ(in.u32(), c.points);
  point.layers().readSizes(in);
  for (std::size_t k = 0; k < others; ++k)
    in.u32();
  point.layers().open(in);
  std::array<std::uint8_t, 30> record{};
  unsigned switches = 0;
  for (std::uint64_t i = 1; i < c.points; ++i) {
    const unsigned k = point.next(record.data());
    const std::uint8_t* expected = las.record(i);
    ASSERT_EQ(std::memcmp(record.data(), expected, 30), 0) << lazPath << " point " << i;
    ASSERT_EQ(k, contextOf(expected, las.record(i - 1), version4)) << lazPath << " point " << i;
    switches += (expected[15] >> 4) != (las.record(i - 1)[15] >> 4);
  }
  EXPECT_FALSE(point.layers().overran()) << lazPath;
  if (others > 0) {
    EXPECT_GT(switches, 0u) << lazPath;
  }
}

TEST(LazItems, Point14DecodesLaszipLayersAsTheRecordsHoldThem) {
  expectPoint14Decoded(Sample / "1_4_w_evlr.laz", Sample / "1_4_w_evlr.decoded.las", false, 0);
  expectPoint14Decoded(Sample / "wave9.laz", Sample / "wave9.las", false, 1);
  expectPoint14Decoded(Sample / "wave9v4.laz", Sample / "wave9.las", true, 1);
  expectPoint14Decoded(Sample / "wave10v4.laz", Sample / "wave10.las", true, 5);
}

// Times as the 64-bit patterns of their doubles.
std::int64_t pattern(double t) {
  return at<std::int64_t>(reinterpret_cast<const std::uint8_t*>(&t));
}

// GPS times of every kind: repeats, a constant step (multiplier 1), steps 2 to 9 and 10 to 499
// times the last, beyond 500 times, backwards by 1 to 9 and by more than 10 times, a step near 0
// (no prediction), jumps beyond 32 bits to new sequences and back to older ones, five sequences
// taking turns (one more than the coder keeps).
std::vector<std::int64_t> timeSequence() {
  std::vector<std::int64_t> t{pattern(3e8)};
  auto step = [&t](std::int64_t d) { t.push_back(t.back() + d); };
  for (int i = 0; i < 5; ++i)
    t.push_back(t.back());
  for (int i = 0; i < 20; ++i)
    step(1000);
  for (std::int64_t m : {2, 3, 9, 10, 40, 499, 700, 100000})
    step(1000 * m), step(1000);
  for (std::int64_t m : {-1, -5, -9, -11, -300})
    step(1000 * m), step(1000);
  step(1), step(1000), step(0), step(1000);
  const std::int64_t start = t.back();
  for (int round = 0; round < 6; ++round)
    for (std::int64_t s = 0; s < 5; ++s) {
      t.push_back(start + (s << 40) + round * 7000);
      step(round + 1);
    }
  step(std::int64_t(1) << 31), step(-(std::int64_t(1) << 33)), step(-5);
  return t;
}

TEST(LazItems, GpsTimesOfEveryKindDecodeToTheTimesCoded) {
  const auto times = timeSequence();
  // GPSTIME11: the times as records of 8 bytes.
  std::vector<std::uint8_t> coded;
  {
    Laz::GpsTime11Item item;
    item.first(reinterpret_cast<const std::uint8_t*>(&times[0]));
    Laz::Encoder e(coded);
    for (std::size_t i = 1; i < times.size(); ++i)
      item.next(e, reinterpret_cast<const std::uint8_t*>(&times[i]));
    e.done();
  }
  Laz::GpsTime11Item item;
  item.first(reinterpret_cast<const std::uint8_t*>(&times[0]));
  Laz::Decoder d(coded.data(), coded.size());
  d.start();
  for (std::size_t i = 1; i < times.size(); ++i) {
    std::int64_t out;
    item.next(d, reinterpret_cast<std::uint8_t*>(&out));
    ASSERT_EQ(out, times[i]) << "time " << i;
  }
  EXPECT_FALSE(d.overran());

  // POINT14's coder codes changed times only.
  std::vector<std::int64_t> changed{times[0]};
  for (std::int64_t t : times)
    if (t != changed.back())
      changed.push_back(t);
  std::vector<std::uint8_t> layer;
  Laz::GpsTimeCoder encoder(false), decoder(false);
  encoder.start(changed[0]);
  decoder.start(changed[0]);
  Laz::Encoder e(layer);
  for (std::size_t i = 1; i < changed.size(); ++i)
    encoder.encode(e, changed[i]);
  e.done();
  Laz::Decoder d14(layer.data(), layer.size());
  d14.start();
  for (std::size_t i = 1; i < changed.size(); ++i)
    ASSERT_EQ(decoder.decode(d14), changed[i]) << "changed time " << i;
  // Without the symbol of an unchanged time, the same times take fewer bytes.
  EXPECT_LT(layer.size(), coded.size());
}

TEST(LazItems, ConstantStepsCostFarLessThanNewSequences) {
  // A constant step is predicted (multiplier 1, nothing left to code); a jump beyond 32 bits
  // codes its time nearly raw: a thousand of each show the prediction at work.
  auto size = [](std::int64_t stepBits) {
    std::vector<std::uint8_t> out;
    Laz::GpsTime11Item item;
    std::int64_t t = pattern(1e8);
    item.first(reinterpret_cast<const std::uint8_t*>(&t));
    Laz::Encoder e(out);
    for (int i = 0; i < 1000; ++i) {
      t += stepBits;
      item.next(e, reinterpret_cast<const std::uint8_t*>(&t));
    }
    e.done();
    return out.size();
  };
  EXPECT_LT(size(4096), 500u);
  EXPECT_GT(size(std::int64_t(1) << 36), 4000u);
}

// POINT14 records whose returns count up, down and jump, whose number of returns changes, and
// whose scanner channel switches (to a channel not used yet and back to one used before).
std::vector<std::uint8_t> point14Records(std::size_t count) {
  std::vector<std::uint8_t> out(30 * count);
  const unsigned returns[][2] = {{1, 1}, {1, 3}, {2, 3},  {3, 3},   {1, 2}, {2, 2}, {5, 7},
                                 {2, 7}, {7, 7}, {1, 15}, {15, 15}, {0, 0}, {4, 4}};
  const unsigned channels[] = {0, 0, 1, 1, 0, 2, 3, 3, 1, 0, 0, 0, 2};
  double time = 2e5;
  for (std::size_t i = 0; i < count; ++i) {
    std::uint8_t* r = out.data() + 30 * i;
    const auto& [rn, n] = returns[(i * 7 + i / 13) % 13];
    const std::int32_t xyz[3] = {static_cast<std::int32_t>(i * 13), static_cast<std::int32_t>(i),
                                 static_cast<std::int32_t>(i % 9)};
    std::memcpy(r, xyz, 12);
    r[12] = static_cast<std::uint8_t>(i % 5);
    r[14] = static_cast<std::uint8_t>(rn | (n << 4));
    r[15] = static_cast<std::uint8_t>(channels[(i / 3) % 13] << 4 | (i % 17 == 0 ? 0x40 : 0));
    r[16] = static_cast<std::uint8_t>(i % 4 ? 2 : 6);
    if (i % 3 == 0)
      time += i % 30 == 0 ? 1e6 : 1e-4;
    std::memcpy(r + 22, &time, 8);
  }
  return out;
}

TEST(LazItems, ReturnsAndChannelsOfPoint14DecodeToTheRecordsCoded) {
  const auto records = point14Records(500);
  for (const bool version4 : {false, true}) {
    Laz::Point14Item encoder(version4);
    encoder.first(records.data());
    for (std::size_t i = 1; i < 500; ++i)
      ASSERT_EQ(encoder.next(records.data() + 30 * i),
                contextOf(records.data() + 30 * i, records.data() + 30 * (i - 1), version4))
          << "point " << i;
    std::vector<std::uint8_t> chunk;
    encoder.layers().appendSizes(chunk);
    encoder.layers().appendBytes(chunk);
    Laz::ChunkReader in(chunk.data(), chunk.size());
    Laz::Point14Item decoder(version4);
    decoder.first(records.data());
    decoder.layers().readSizes(in);
    decoder.layers().open(in);
    std::array<std::uint8_t, 30> out{};
    for (std::size_t i = 1; i < 500; ++i) {
      decoder.next(out.data());
      ASSERT_EQ(std::memcmp(out.data(), records.data() + 30 * i, 30), 0)
          << "point " << i << (version4 ? ", version 4" : ", version 3");
    }
  }
}

// The record's bytes as LASzip lays them out: compressor, coder, version 3.4 revision 3, options,
// chunk size, special EVLRs and their offset (-1: none), then type, size and version per item.
TEST(LazItems, TheLaszipRecordIsLaidOutAsLaszipReadsIt) {
  Laz::Description d;
  const Las::Vlr v = Laz::laszipRecord(7, 3, 50000, d);
  const std::vector<std::uint8_t> expected = {
      3,    0,    0,    0,    3,    4,    3,    0,    0,    0,    0,    0,    0x50,
      0xC3, 0,    0,    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 3,    0,    10,   0,    30,   0,    3,
      0,    11,   0,    6,    0,    3,    0,    14,   0,    3,    0,    3,    0};
  EXPECT_EQ(v.data, expected);
  const Laz::Description back = Laz::describe(v);
  EXPECT_EQ(back.compressor, Laz::Compressor::LayeredChunked);
  EXPECT_EQ(back.chunkSize, 50000u);
  EXPECT_EQ(back.versionMajor, 3);
  EXPECT_EQ(back.revision, 3);
  EXPECT_EQ(back.specialEvlrs, -1);
  ASSERT_EQ(back.items.size(), 3u);
  EXPECT_EQ(back.items[2].type, Laz::Byte14);
  EXPECT_EQ(back.items[2].size, 3);
  Laz::laszipRecord(1, 0, 100, d);
  EXPECT_EQ(d.compressor, Laz::Compressor::PointwiseChunked);

  // Every problem listed, in the order a reader meets them.
  Laz::Description bad = back;
  bad.compressor = static_cast<Laz::Compressor>(9);
  bad.coder = 1;
  EXPECT_EQ(
      Laz::validate(bad, 52, 4),
      (std::vector<std::string>{"the \"laszip encoded\" record lists 4 items but holds only 3",
                                "compressor 9 is not supported", "coder 1 is not supported"}));
  EXPECT_EQ(Laz::validate(back, 20, 0),
            std::vector<std::string>{"the \"laszip encoded\" record is 20 bytes, too short"});
  bad.compressor = Laz::Compressor::None;
  bad.coder = 0;
  EXPECT_EQ(Laz::validate(bad, 52, 3), std::vector<std::string>{"compressor 0 is not supported"});
}

class LazChunkTables : public ScratchDirectory {
protected:
  // simple.laz with its points coded again in chunks of the sizes given, and a chunk table of
  // variable chunks listing `listed` point counts (the true ones when empty).
  std::string variableFile(const std::vector<std::uint32_t>& sizes,
                           std::vector<std::uint32_t> listed = {}) {
    auto b = LasBytes::bytesOf((Sample / "simple.laz").string());
    const auto las = lasOf(Sample / "simple.decoded.las");
    const auto offset = at<std::uint32_t>(b.data() + 96);
    b.resize(offset);
    // The record's chunk size: variable.
    const Las::Vlr v = laszipOf(b);
    const auto found = std::search(b.begin(), b.end(), v.data.begin(), v.data.end());
    const std::uint32_t variable = Laz::Description::VariableChunks;
    std::memcpy(&*(found + 12), &variable, 4);
    const Laz::Description d = Laz::describe(laszipOf(b));
    std::vector<std::uint8_t> points(8);
    std::vector<Laz::Chunk> chunks;
    std::uint64_t first = 0;
    for (std::size_t k = 0; k < sizes.size(); ++k) {
      const std::size_t before = points.size();
      Laz::encodePointwiseChunk(las.record(first), sizes[k], d.items, 34, points);
      chunks.push_back({first, listed.empty() ? sizes[k] : listed[k], 0, points.size() - before});
      first += sizes[k];
    }
    const std::int64_t tableAt = static_cast<std::int64_t>(offset + points.size());
    std::memcpy(points.data(), &tableAt, 8);
    Laz::appendChunkTable(points, chunks, true);
    b.insert(b.end(), points.begin(), points.end());
    std::ofstream(file("variable.laz"), std::ios::binary)
        .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    return file("variable.laz");
  }
};

TEST_F(LazChunkTables, ChunksOfDifferingSizesReadAsOneFile) {
  const auto read = Las::read(variableFile({500, 65, 1, 499}));
  Las::write(file("out.las"), *read.grid);
  EXPECT_TRUE(lasOf(file("out.las")).points == lasOf(Sample / "simple.decoded.las").points);
}

TEST_F(LazChunkTables, MalformedVariableTablesAreRefusedWithTheirReason) {
  auto expectRefused = [&](const std::string& path, const std::string& text) {
    try {
      Las::read(path);
      ADD_FAILURE() << "read, expected: " << text;
    } catch (const Las::Error& e) {
      EXPECT_NE(std::string(e.what()).find(path + ": " + text), std::string::npos) << e.what();
    }
  };
  // The counts listed add up to fewer points than the header's.
  expectRefused(variableFile({500, 565}, {500, 500}),
                "the chunks hold 1000 points, the header says 1065");
  // A chunk listed with more points than it codes cannot decode them all.
  expectRefused(variableFile({500, 565}, {565, 500}), "chunk 0 of 2: truncated");
}

} // namespace
