// SPDX-License-Identifier: BSD-3-Clause
// Tests of LAS and LAZ streams: records read in batches equal the records the files hold (parsed
// here by LasBytes, which shares no code with io/), files written from batches carry them and a
// header recomputed here, LAZ chunks cut short for bounded memory still decode, and box reads
// equal a mask of all the records.
#include "io/stream.hpp"

#include "las_bytes.hpp"
#include "support/scratch_directory.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

using namespace Quorvel;
namespace fs = std::filesystem;

const fs::path Sample = QUORVEL_SAMPLE_DATA;

LasBytes::File parsed(const fs::path& path) {
  std::string error;
  LasBytes::File f = LasBytes::parse(LasBytes::bytesOf(path.string()), error);
  EXPECT_EQ(error, "") << path;
  return f;
}

// Every record a reader gives, batch after batch.
std::vector<std::uint8_t> allRecords(Las::Reader& reader) {
  std::vector<std::uint8_t> out;
  const std::size_t length = reader.info().header.recordLength;
  for (Las::Batch b = reader.next(); b.count > 0; b = reader.next())
    out.insert(out.end(), b.records, b.records + b.count * length);
  return out;
}

// A file written from a reader's records in batches of `batch` points, flushed every `flushEvery`
// batches (0: never).
void copyInBatches(const std::string& from, const std::string& to, std::size_t batch,
                   std::size_t flushEvery = 0) {
  Las::Reader reader(from);
  const std::vector<std::uint8_t> records = allRecords(reader);
  const std::size_t length = reader.info().header.recordLength;
  Las::Writer writer(to, reader.info());
  const std::size_t n = records.size() / length;
  for (std::size_t at = 0, k = 0; at < n; at += batch, ++k) {
    writer.append(records.data() + at * length, std::min(batch, n - at));
    if (flushEvery && k % flushEvery == 0)
      writer.flush();
  }
  writer.finish();
}

// The LAS file holding the records of each sample, compressed or not.
const std::vector<std::pair<std::string, std::string>> Pairs = {
    {"sample_c.las", "sample_c.las"},
    {"nebraska_wkt_geotiff.las", "nebraska_wkt_geotiff.las"},
    {"simple.laz", "simple.decoded.las"},
    {"1_4_w_evlr.laz", "1_4_w_evlr.decoded.las"},
    {"extra.laz", "extra.decoded.las"}};

class Stream : public ScratchDirectory {};

TEST_F(Stream, ReadsEveryRecordOfLasAndLazInFileOrder) {
  for (const auto& [file, records] : Pairs) {
    Las::Reader reader((Sample / file).string());
    EXPECT_EQ(allRecords(reader), parsed(Sample / records).points) << file;
    EXPECT_EQ(reader.compressed(), fs::path(file).extension() == ".laz") << file;
  }
}

TEST_F(Stream, WritesRecordsAndAHeaderThatTheRecordsGive) {
  for (const auto& [file, records] : Pairs)
    for (const std::string ext : {".las", ".laz"}) {
      const std::string out = this->file("out" + ext);
      copyInBatches((Sample / file).string(), out, 97);
      const LasBytes::File want = parsed(Sample / records);
      // The written file decoded by the reader, compared with the records as stored.
      Las::Reader back(out);
      EXPECT_EQ(allRecords(back), want.points) << file << ext;
      if (ext == ".las") {
        const LasBytes::File got = parsed(out);
        EXPECT_EQ(got.pointCount, want.pointCount);
        EXPECT_EQ(got.scale, want.scale);
        EXPECT_EQ(got.offset, want.offset);
        EXPECT_EQ(got.pointFormat, want.pointFormat);
        EXPECT_EQ(got.evlrs.size(), want.evlrs.size()) << file;
        // Bounds from the integer coordinates of the records.
        for (int a = 0; a < 3; ++a) {
          std::int32_t lo = INT32_MAX, hi = INT32_MIN;
          for (std::uint64_t k = 0; k < want.pointCount; ++k) {
            lo = std::min(lo, want.integer(k, a));
            hi = std::max(hi, want.integer(k, a));
          }
          EXPECT_DOUBLE_EQ(got.min[a], lo * want.scale[a] + want.offset[a]) << file << a;
          EXPECT_DOUBLE_EQ(got.max[a], hi * want.scale[a] + want.offset[a]) << file << a;
        }
      }
    }
}

TEST_F(Stream, WavePacketsInTheFirstEvlrStayFoundThere) {
  // A start of wave packets at the first EVLR moves with it; any other start is dropped.
  Las::Reader reader((Sample / "1_4_w_evlr.decoded.las").string());
  const auto records = allRecords(reader);
  for (const bool internal : {true, false}) {
    Las::FileInfo info = reader.info();
    info.header.waveformStart = internal ? info.header.evlrOffset : 12345;
    info.vlrs.push_back({0, "padding", 1, "moves the EVLRs", std::vector<std::uint8_t>(100, 0)});
    Las::Writer writer(file("waves.las"), info);
    writer.append(records.data(), records.size() / info.header.recordLength);
    writer.finish();
    const auto bytes = LasBytes::bytesOf(file("waves.las"));
    const auto start = LasBytes::at<std::uint64_t>(bytes, 227);
    const auto evlrs = LasBytes::at<std::uint64_t>(bytes, 235);
    EXPECT_NE(evlrs, reader.info().header.evlrOffset);
    EXPECT_EQ(start, internal ? evlrs : 0u);
  }
}

TEST_F(Stream, LazChunksCutShortByFlushesStillDecode) {
  // Flushes after odd batch sizes make chunks of every size, and a variable chunk table.
  const std::string out = file("flushed.laz");
  copyInBatches((Sample / "sample_c.las").string(), out, 1234, 3);
  Las::Reader back(out);
  EXPECT_EQ(allRecords(back), parsed(Sample / "sample_c.las").points);
  const auto read = Las::read(out);
  EXPECT_EQ(read.info.header.pointCount, 14408u);
}

TEST_F(Stream, AWriterDroppedBeforeFinishingLeavesTheEarlierFile) {
  const std::string out = file("kept.las");
  fs::copy_file(Sample / "sample_c_thin.las", out);
  const auto before = LasBytes::bytesOf(out);
  {
    Las::Reader reader((Sample / "sample_c.las").string());
    Las::Writer writer(out, reader.info());
    const Las::Batch b = reader.next();
    writer.append(b.records, b.count);
  }
  EXPECT_EQ(LasBytes::bytesOf(out), before);
  EXPECT_EQ(filesInDir(), 1u);
}

TEST_F(Stream, RefusesRecordsTooShortForTheirFormat) {
  Las::FileInfo info;
  info.header.pointFormat = 7;
  info.header.recordLength = 30;
  EXPECT_THROW(Las::Writer(file("short.las"), info), Las::Error);
}

TEST_F(Stream, AddedDimensionLengthensTheRecordsAndIsDescribed) {
  Las::Reader reader((Sample / "extra.laz").string());
  const Las::FileInfo with = Las::withDimension(reader.info(), "Buffer", "uint8");
  EXPECT_EQ(with.header.recordLength, reader.info().header.recordLength + 1);
  ASSERT_EQ(with.extraBytes.size(), reader.info().extraBytes.size() + 1);
  EXPECT_EQ(with.extraBytes.back().name, "Buffer");
  // A file written with it reads back with the new field.
  std::vector<std::uint8_t> records = allRecords(reader);
  const std::size_t length = reader.info().header.recordLength, n = records.size() / length;
  std::vector<std::uint8_t> longer(n * (length + 1), 0);
  for (std::size_t k = 0; k < n; ++k) {
    std::memcpy(longer.data() + k * (length + 1), records.data() + k * length, length);
    longer[k * (length + 1) + length] = static_cast<std::uint8_t>(k % 2);
  }
  Las::Writer writer(file("buffer.las"), with);
  writer.append(longer.data(), n);
  writer.finish();
  const auto back = Las::read(file("buffer.las"));
  const auto field = (*back.grid)(Tressel::StandardCartesianChart3D, "Buffer");
  ASSERT_TRUE(field);
  const auto values = Tressel::readField<unsigned char>(*field);
  ASSERT_EQ(values.size(), n);
  EXPECT_EQ(values[1], 1);
  EXPECT_EQ(values[2], 0);
}

// The records of a file inside box, by a mask over all of them.
std::vector<std::uint8_t> masked(const LasBytes::File& f, const Las::Box& box) {
  std::vector<std::uint8_t> out;
  for (std::uint64_t k = 0; k < f.pointCount; ++k) {
    const double x = f.integer(k, 0) * f.scale[0] + f.offset[0];
    const double y = f.integer(k, 1) * f.scale[1] + f.offset[1];
    const double z = f.integer(k, 2) * f.scale[2] + f.offset[2];
    if (x >= box.x0 && x <= box.x1 && y >= box.y0 && y <= box.y1 &&
        (!box.z || (z >= (*box.z)[0] && z <= (*box.z)[1])))
      out.insert(out.end(), f.record(k), f.record(k) + f.recordLength);
  }
  return out;
}

TEST_F(Stream, BoxReadsEqualAMaskOfAllRecords) {
  for (const auto& [file, records] : Pairs) {
    const LasBytes::File f = parsed(Sample / records);
    // Edges on the coordinates of points, so that the closed edges are tested.
    const double x0 = f.integer(3, 0) * f.scale[0] + f.offset[0];
    const double y0 = f.min[1], x1 = f.max[0];
    const double y1 = f.integer(7, 1) * f.scale[1] + f.offset[1];
    const std::vector<Las::Box> boxes = {
        {x0, y0, x1, y1, std::nullopt},
        {f.min[0], f.min[1], f.max[0], f.max[1], std::nullopt},
        {x0, y0, x1, y1, std::array<double, 2>{f.min[2], (f.min[2] + f.max[2]) / 2}},
        {f.max[0] + 1, f.max[1] + 1, f.max[0] + 2, f.max[1] + 2, std::nullopt}};
    for (const Las::Box& box : boxes) {
      Las::Reader reader((Sample / file).string());
      reader.restrict(box);
      const auto want = masked(f, box);
      EXPECT_EQ(allRecords(reader), want) << file;
      const auto read = Las::read((Sample / file).string(), box);
      const auto intensity = (*read.grid)(Tressel::StandardCartesianChart3D, "Intensity");
      ASSERT_TRUE(intensity);
      EXPECT_EQ(Tressel::readField<std::uint16_t>(*intensity).size(), want.size() / f.recordLength)
          << file;
    }
  }
}

// The records of a batch of records as a sorted list, for files that order them their own way.
std::vector<std::string> sorted(const std::vector<std::uint8_t>& records, std::size_t length) {
  std::vector<std::string> out;
  for (std::size_t at = 0; at < records.size(); at += length)
    out.emplace_back(reinterpret_cast<const char*>(records.data() + at), length);
  std::sort(out.begin(), out.end());
  return out;
}

TEST_F(Stream, CopcBoxReadsEqualAMaskOfAllRecords) {
  // A COPC file of a LAS 1.4 format 6 file keeps its records, in the order of its octree.
  const fs::path source = Sample / "nebraska_wkt_geotiff.las";
  const std::string copc = file("cloud.copc.laz");
  Las::write(copc, *Las::read(source.string()).grid);
  const LasBytes::File f = parsed(source);
  const double midX = (f.min[0] + f.max[0]) / 2, midY = (f.min[1] + f.max[1]) / 2;
  const std::vector<Las::Box> boxes = {
      {f.min[0], f.min[1], midX, midY, std::nullopt},
      {midX, f.min[1], f.max[0], f.max[1], std::array<double, 2>{f.min[2], f.max[2]}},
      {f.min[0], f.min[1], f.max[0], f.max[1], std::nullopt},
      {f.max[0] + 1, f.max[1], f.max[0] + 2, f.max[1] + 2, std::nullopt}};
  for (const Las::Box& box : boxes) {
    Las::Reader reader(copc);
    reader.restrict(box);
    EXPECT_EQ(sorted(allRecords(reader), f.recordLength), sorted(masked(f, box), f.recordLength));
  }
}

TEST_F(Stream, LazBoxReadsAfterAWholeReadStayExactAndForgetRewrittenFiles) {
  // Many small chunks, whose bounds a whole read notes for the box reads that follow.
  const std::string laz = file("chunks.laz");
  copyInBatches((Sample / "sample_c.las").string(), laz, 700, 1);
  {
    Las::Reader whole(laz);
    allRecords(whole);
  }
  const LasBytes::File f = parsed(Sample / "sample_c.las");
  const double midX = (f.min[0] + f.max[0]) / 2, midY = (f.min[1] + f.max[1]) / 2;
  for (const Las::Box& box :
       {Las::Box{f.min[0], f.min[1], midX, midY, std::nullopt},
        Las::Box{midX, midY, f.max[0], f.max[1], std::array<double, 2>{f.min[2], 640.0}}}) {
    Las::Reader reader(laz);
    reader.restrict(box);
    EXPECT_EQ(allRecords(reader), masked(f, box));
  }
  // The same path holding other points: the bounds noted before are not used.
  copyInBatches((Sample / "nebraska_wkt_geotiff.las").string(), laz, 900, 1);
  const LasBytes::File g = parsed(Sample / "nebraska_wkt_geotiff.las");
  const Las::Box box{g.min[0], g.min[1], (g.min[0] + g.max[0]) / 2, g.max[1], std::nullopt};
  Las::Reader reader(laz);
  reader.restrict(box);
  EXPECT_EQ(allRecords(reader), masked(g, box));
}

} // namespace
