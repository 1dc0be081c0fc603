// SPDX-License-Identifier: BSD-3-Clause
// Tests of LAZ reading and writing: real LAZ files decoded record for record against the LAS files
// holding the same records (small pairs in data/, the shared corpus when present), wave packets
// against what LASzip writes, tiled reads, and damaged or foreign files refused with their reason.
#include "io/las.hpp"

#include "io/laz/layered.hpp"
#include "io/laz/pointwise.hpp"
#include "support/scratch_directory.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <tuple>
#include <utility>

namespace {

using namespace Quorvel;
namespace fs = std::filesystem;

const fs::path Sample = QUORVEL_SAMPLE_DATA;
const fs::path Shared = fs::path(QUORVEL_REAL_DATA).parent_path();

std::vector<std::uint8_t> bytesOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The point records of an uncompressed LAS file, as stored.
std::vector<std::uint8_t> recordsOf(const fs::path& path) {
  const auto b = bytesOf(path);
  std::uint32_t offset, count;
  std::uint16_t length;
  std::memcpy(&offset, b.data() + 96, 4);
  std::memcpy(&length, b.data() + 105, 2);
  std::memcpy(&count, b.data() + 107, 4);
  if (b[25] >= 4 && count == 0) {
    std::uint64_t wide;
    std::memcpy(&wide, b.data() + 247, 8);
    count = static_cast<std::uint32_t>(wide);
  }
  return {b.begin() + offset, b.begin() + offset + std::size_t(count) * length};
}

class LazFiles : public ScratchDirectory {
protected:
  // Reads the LAZ file, writes its points as LAS and compares the records with the LAS file that
  // holds them.
  void expectRecords(const fs::path& laz, const fs::path& las) {
    const auto read = Las::read(laz.string());
    const auto records = recordsOf(las);
    EXPECT_EQ(read.info.header.pointFormat & 0xC0, 0) << laz;
    for (const Las::Vlr& v : read.info.vlrs)
      EXPECT_NE(v.userId, "laszip encoded") << laz;
    Las::write(file("out.las"), *read.grid);
    EXPECT_TRUE(recordsOf(file("out.las")) == records) << laz << " against " << las;
  }

  // Reads the LAZ file, writes it as LAZ and reads that again: the same records, VLRs and EVLRs,
  // a file no more than 2% larger when written with the coders it was written with.
  void expectRewritten(const fs::path& laz, bool sameCoders = true) {
    const auto read = Las::read(laz.string());
    Las::write(file("again.laz"), *read.grid);
    const auto again = Las::read(file("again.laz"));
    Las::write(file("first.las"), *read.grid);
    Las::write(file("second.las"), *again.grid);
    EXPECT_TRUE(recordsOf(file("first.las")) == recordsOf(file("second.las"))) << laz;
    EXPECT_EQ(again.info.vlrs.size(), read.info.vlrs.size()) << laz;
    EXPECT_EQ(again.info.evlrs.size(), read.info.evlrs.size()) << laz;
    if (sameCoders) {
      EXPECT_LE(fs::file_size(file("again.laz")), fs::file_size(laz) * 102 / 100) << laz;
    }
  }

  // Writes bytes as a file of the scratch directory and expects reading it to fail with text.
  void expectRefused(const std::vector<std::uint8_t>& bytes, const std::string& text) {
    {
      std::ofstream out(file("damaged.laz"), std::ios::binary);
      out.write(reinterpret_cast<const char*>(bytes.data()),
                static_cast<std::streamsize>(bytes.size()));
    }
    try {
      Las::read(file("damaged.laz"));
      ADD_FAILURE() << "read, expected: " << text;
    } catch (const Las::Error& e) {
      EXPECT_NE(std::string(e.what()).find(file("damaged.laz") + ": " + text), std::string::npos)
          << e.what();
    }
  }
};

TEST_F(LazFiles, SmallFilesDecodeToTheirRecords) {
  expectRecords(Sample / "simple.laz", Sample / "simple.decoded.las");
  expectRecords(Sample / "extra.laz", Sample / "extra.decoded.las");
  // The layered compressor (format 6), with EVLRs after the chunk table.
  expectRecords(Sample / "1_4_w_evlr.laz", Sample / "1_4_w_evlr.decoded.las");
  EXPECT_FALSE(Las::read((Sample / "1_4_w_evlr.laz").string()).info.evlrs.empty());
  // Tiles hold the same points, numbered by their place in the file.
  const auto whole = Las::read((Sample / "simple.laz").string());
  const auto tiled = Las::read((Sample / "simple.laz").string(), 200);
  EXPECT_GT(tiled.grid->CartesianPositions()->nFragments(), 1u);
  Las::write(file("tiled.las"), *tiled.grid);
  EXPECT_TRUE(recordsOf(file("tiled.las")) == recordsOf(Sample / "simple.decoded.las"));
  const Las::Summary s = Las::summarize((Sample / "simple.laz").string());
  EXPECT_EQ(s.pointCount, 1065u);
  EXPECT_EQ(s.header.pointFormat, 3);
}

// Files LASzip 3.4 wrote with the items of version 1, as LASzip 1.x did: one stream without a
// chunk table (points, GPS times, colours; wave packets and extra bytes) or chunks with extra
// bytes, and chunks of 100 points with GPS times made to take every way a time is coded. Each
// decodes to its records and is written back with the items of version 2.
TEST_F(LazFiles, FilesOfItemsVersion1DecodeToTheirRecords) {
  const std::pair<const char*, const char*> pairs[] = {{"simple-v1.laz", "simple.decoded.las"},
                                                       {"extra-v1.laz", "extra.decoded.las"},
                                                       {"wave5-v1.laz", "wave5.las"},
                                                       {"times-v1.laz", "times.las"}};
  for (const auto& [laz, las] : pairs) {
    expectRecords(Sample / laz, Sample / las);
    expectRewritten(Sample / laz, false);
  }
}

TEST_F(LazFiles, SmallFilesWrittenAsLazReadBackTheSame) {
  expectRewritten(Sample / "simple.laz");
  expectRewritten(Sample / "extra.laz");
  expectRewritten(Sample / "1_4_w_evlr.laz");
  // A cloud without a LAS origin is written as format 6.
  std::vector<Vantor::PhysicalSpace::point> xyz;
  for (int i = 0; i < 70000; ++i)
    xyz.emplace_back(1000 + (i % 300) * 0.25, 2000 + (i / 300) * 0.25, 50 + (i % 7) * 0.1);
  auto cloud = Tressel::PointCloudBuilder(xyz).build(Tressel::Partition{[&] {
    std::vector<std::size_t> all(xyz.size());
    for (std::size_t i = 0; i < all.size(); ++i)
      all[i] = i;
    return all;
  }()});
  Las::write(file("cloud.laz"), *cloud);
  const auto read = Las::read(file("cloud.laz"));
  EXPECT_EQ(read.info.header.pointFormat, 6);
  EXPECT_EQ(read.info.header.pointCount, 70000u);
  Las::write(file("cloud.las"), *cloud);
  Las::write(file("back.las"), *read.grid);
  EXPECT_TRUE(recordsOf(file("cloud.las")) == recordsOf(file("back.las")));
}

// A wave packet after the last one (or a first one): the waveform at the same offset, right after
// the last packet, a 32-bit or a 64-bit step away; sizes that mostly repeat, some beyond 2^31.
void wavePacket(std::uint8_t* p, const std::uint8_t* last, std::mt19937& random) {
  std::uint64_t offset = 1000;
  std::uint32_t size = 256;
  if (last) {
    std::memcpy(&offset, last + 1, 8);
    std::memcpy(&size, last + 9, 4);
  }
  const unsigned kind = random() % 10;
  offset = kind < 2   ? offset
           : kind < 7 ? offset + size
           : kind < 9 ? offset + random() % 100000 - 50000
                      : offset + (std::uint64_t(random()) << 20);
  if (random() % 8 == 0)
    size = random() % 16 ? 128 + random() % 512 : 0x80000000u + random() % 1000;
  p[0] = static_cast<std::uint8_t>(random() % 5 ? 1 : random() % 4);
  std::memcpy(p + 1, &offset, 8);
  std::memcpy(p + 9, &size, 4);
  const float floats[4] = {static_cast<float>(random() % 2000) * 0.25f,
                           static_cast<float>(random() % 100) * 1e-4f - 5e-3f,
                           static_cast<float>(random() % 100) * 1e-4f, -1.5e-4f};
  std::memcpy(p + 13, floats, 16);
}

// Files LASzip 3.4 wrote (chunks of 1,000 points) from synthetic wave-packet records, items of
// versions 1 to 3 and, for formats 9 and 10, also of version 4 (whose items after the point always
// follow its channel): every record decoded, the first chunk encoded again byte for byte as
// LASzip encoded it, every file written as LAZ and read back the same.
TEST_F(LazFiles, WavePacketFilesDecodeAndEncodeAsLaszipDoes) {
  using L = Quorvel::Laz::ItemType;
  const auto items = [](int format, std::uint16_t v) {
    const std::uint16_t p = format < 6 ? 2 : v;
    switch (format) {
    case 4:
      return std::vector<Quorvel::Laz::Item>{
          {L::Point10, 20, p}, {L::GpsTime11, 8, p}, {L::WavePacket13, 29, 1}};
    case 5:
      return std::vector<Quorvel::Laz::Item>{{L::Point10, 20, p},
                                             {L::GpsTime11, 8, p},
                                             {L::Rgb12, 6, p},
                                             {L::WavePacket13, 29, 1},
                                             {L::Byte, 2, p}};
    case 9:
      return std::vector<Quorvel::Laz::Item>{{L::Point14, 30, v}, {L::WavePacket14, 29, v}};
    default:
      return std::vector<Quorvel::Laz::Item>{
          {L::Point14, 30, v}, {L::RgbNir14, 8, v}, {L::WavePacket14, 29, v}, {L::Byte14, 2, v}};
    }
  };
  const std::tuple<const char*, int, std::uint16_t> files[] = {
      {"wave4", 4, 3},   {"wave5", 5, 3},   {"wave9", 9, 3},
      {"wave10", 10, 3}, {"wave9v4", 9, 4}, {"wave10v4", 10, 4}};
  for (const auto& [name, format, version] : files) {
    const std::string base = std::string(name).substr(0, std::string(name).find("v4"));
    const fs::path laz = Sample / (std::string(name) + ".laz"), las = Sample / (base + ".las");
    expectRecords(laz, las);
    expectRewritten(laz);
    const auto records = recordsOf(las);
    const std::size_t length = records.size() / 1500;
    std::vector<std::uint8_t> chunk;
    if (format < 6)
      Quorvel::Laz::encodePointwiseChunk(records.data(), 1000, items(format, version), length,
                                         chunk);
    else
      Quorvel::Laz::encodeLayeredChunk(records.data(), 1000, items(format, version), length, chunk);
    const auto file = bytesOf(laz);
    std::uint32_t offset;
    std::memcpy(&offset, file.data() + 96, 4);
    ASSERT_LE(offset + 8 + chunk.size(), file.size()) << name;
    EXPECT_TRUE(std::equal(chunk.begin(), chunk.end(), file.begin() + offset + 8)) << name;
  }
}

// Records of a point format with some structure and some noise: returns that count up and
// jump, scanner channels that switch, wave packets, GPS times in sequences that restart, colours
// and extra bytes that mostly repeat.
std::vector<std::uint8_t> syntheticRecords(int format, std::size_t length, std::size_t count,
                                           unsigned seed) {
  std::mt19937 random(seed);
  std::vector<std::uint8_t> out(length * count);
  const bool extended = format >= 6;
  double time = 1e8;
  for (std::size_t i = 0; i < count; ++i) {
    std::uint8_t* r = out.data() + i * length;
    const std::int32_t xyz[3] = {static_cast<std::int32_t>(i * 37 + random() % 50),
                                 static_cast<std::int32_t>(i * 11 - random() % 20),
                                 static_cast<std::int32_t>(random() % 4000) - 2000};
    std::memcpy(r, xyz, 12);
    const std::uint16_t intensity = static_cast<std::uint16_t>(random() % 3 ? 300 : random());
    std::memcpy(r + 12, &intensity, 2);
    const unsigned n = 1 + random() % (extended ? 15 : 7), rn = 1 + random() % n;
    if (i % 97 == 5)
      time += (random() % 2 ? 1e9 : -1e6); // a jump to another sequence
    time += random() % 4 ? 1e-5 : 0.0;
    if (extended) {
      r[14] = static_cast<std::uint8_t>(rn | (n << 4));
      r[15] =
          static_cast<std::uint8_t>((random() % 4) | ((i / 300 % 4) << 4) | ((random() % 2) << 6));
      r[16] = static_cast<std::uint8_t>(random() % 3 ? 2 : random() % 20);
      r[17] = static_cast<std::uint8_t>(random() % 5);
      const std::int16_t angle = static_cast<std::int16_t>(random() % 3000 - 1500);
      std::memcpy(r + 18, &angle, 2);
      const std::uint16_t source = static_cast<std::uint16_t>(i / 500);
      std::memcpy(r + 20, &source, 2);
      std::memcpy(r + 22, &time, 8);
    } else {
      r[14] = static_cast<std::uint8_t>(rn | (n << 3) | ((random() % 2) << 6));
      r[15] = static_cast<std::uint8_t>(random() % 3 ? 2 : random() % 20);
      r[16] = static_cast<std::uint8_t>(random() % 60);
      r[17] = static_cast<std::uint8_t>(random() % 5);
      const std::uint16_t source = static_cast<std::uint16_t>(i / 500);
      std::memcpy(r + 18, &source, 2);
      if (format == 1 || format == 3)
        std::memcpy(r + 20, &time, 8);
    }
    // Colour, near infrared and extra bytes fill the rest: slowly changing values.
    const std::size_t base = extended ? 30 : (format == 0 || format == 2 ? 20 : 28);
    for (std::size_t k = base; k < length; ++k)
      r[k] = static_cast<std::uint8_t>(random() % 4 ? (i / 64 + k) : random());
    const int waveAt[11] = {-1, -1, -1, -1, 28, 34, -1, -1, -1, 30, 38};
    if (waveAt[format] >= 0)
      wavePacket(r + waveAt[format], i == 0 ? nullptr : r - length + waveAt[format], random);
  }
  return out;
}

TEST_F(LazFiles, EncodedChunksDecodeToTheirRecordsInEveryFormat) {
  struct Case {
    int format;
    std::vector<Quorvel::Laz::Item> items;
    std::size_t length;
  };
  const Case cases[] = {
      {0, {{Quorvel::Laz::Point10, 20, 2}}, 20},
      {1,
       {{Quorvel::Laz::Point10, 20, 2},
        {Quorvel::Laz::GpsTime11, 8, 2},
        {Quorvel::Laz::Byte, 3, 2}},
       31},
      {3,
       {{Quorvel::Laz::Point10, 20, 2},
        {Quorvel::Laz::GpsTime11, 8, 2},
        {Quorvel::Laz::Rgb12, 6, 2}},
       34},
      {6, {{Quorvel::Laz::Point14, 30, 3}}, 30},
      {7,
       {{Quorvel::Laz::Point14, 30, 3}, {Quorvel::Laz::Rgb14, 6, 3}, {Quorvel::Laz::Byte14, 4, 3}},
       40},
      {8, {{Quorvel::Laz::Point14, 30, 3}, {Quorvel::Laz::RgbNir14, 8, 3}}, 38},
      {4,
       {{Quorvel::Laz::Point10, 20, 2},
        {Quorvel::Laz::GpsTime11, 8, 2},
        {Quorvel::Laz::WavePacket13, 29, 1}},
       57},
      {5,
       {{Quorvel::Laz::Point10, 20, 2},
        {Quorvel::Laz::GpsTime11, 8, 2},
        {Quorvel::Laz::Rgb12, 6, 2},
        {Quorvel::Laz::WavePacket13, 29, 1},
        {Quorvel::Laz::Byte, 2, 2}},
       65},
      {9, {{Quorvel::Laz::Point14, 30, 3}, {Quorvel::Laz::WavePacket14, 29, 3}}, 59},
      {10,
       {{Quorvel::Laz::Point14, 30, 4},
        {Quorvel::Laz::RgbNir14, 8, 4},
        {Quorvel::Laz::WavePacket14, 29, 4},
        {Quorvel::Laz::Byte14, 2, 4}},
       69}};
  for (const Case& c : cases)
    for (std::uint32_t count : {1u, 2u, 3000u}) {
      const auto records = syntheticRecords(c.format, c.length, count, 7u + count);
      std::vector<std::uint8_t> coded, decoded(records.size());
      if (c.format >= 6) {
        Quorvel::Laz::encodeLayeredChunk(records.data(), count, c.items, c.length, coded);
        Quorvel::Laz::decodeLayeredChunk(coded.data(), coded.size(), c.items, count, c.length,
                                         decoded.data());
      } else {
        Quorvel::Laz::encodePointwiseChunk(records.data(), count, c.items, c.length, coded);
        // Every byte but at most one of the encoder's end is read; a point less leaves its bytes.
        EXPECT_LE(Quorvel::Laz::decodePointwiseChunk(coded.data(), coded.size(), c.items, count,
                                                     c.length, decoded.data()),
                  1u);
        if (count > 1) {
          EXPECT_GT(Quorvel::Laz::decodePointwiseChunk(coded.data(), coded.size(), c.items,
                                                       count - 1, c.length, decoded.data()),
                    1u)
              << "format " << c.format << ", " << count << " points";
        }
      }
      EXPECT_TRUE(decoded == records) << "format " << c.format << ", " << count << " points";
      if (count > 2) {
        // Cut short, the chunk is refused instead of being decoded to something.
        coded.resize(coded.size() / 2);
        EXPECT_THROW(c.format >= 6
                         ? Quorvel::Laz::decodeLayeredChunk(coded.data(), coded.size(), c.items,
                                                            count, c.length, decoded.data())
                         : (void)Quorvel::Laz::decodePointwiseChunk(coded.data(), coded.size(),
                                                                    c.items, count, c.length,
                                                                    decoded.data()),
                     std::runtime_error)
            << "format " << c.format;
      }
    }
  Quorvel::Laz::Description d;
  EXPECT_THROW(Quorvel::Laz::laszipRecord(11, 0, 50000, d), std::runtime_error);
}

// Each LAZ file of the shared corpus with the LAS file that holds its records: a test of its own,
// so that a failure names the file and the files are checked side by side.
class LazCorpus : public LazFiles,
                  public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(LazCorpus, DecodesToItsRecordsAndRewritesTheSame) {
  if (!fs::exists(Shared / "laz"))
    GTEST_SKIP() << "shared LAZ corpus not present (" << (Shared / "laz").string() << ")";
  const auto [laz, las] = GetParam();
  expectRecords(Shared / laz, Shared / las);
  expectRewritten(Shared / laz);
}

INSTANTIATE_TEST_SUITE_P(Files, LazCorpus,
                         ::testing::Values(std::pair{"laz/autzen_trim.laz", "real/autzen_trim.las"},
                                           std::pair{"laz/bcts_1.laz", "real/bcts_1.las"},
                                           std::pair{"laz/bcts_4.laz", "laz/bcts_4.decoded.las"},
                                           std::pair{"laz/lone-star.laz", "real/lone-star_tls.las"},
                                           std::pair{"laz/plane.laz", "real/plane_mls.las"},
                                           std::pair{"laz/simple.copc.laz",
                                                     "laz/simple.copc.decoded.las"},
                                           std::pair{"laz/las_with_several_extra_byte_bloc.laz",
                                                     "real/lidarhd_pf8_extrabytes.las"}),
                         [](const auto& info) {
                           std::string name = fs::path(info.param.first).stem().string();
                           for (char& c : name)
                             c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                           return name;
                         });

// Where simple.laz keeps things: its laszip record's data, its point data.
struct Layout {
  std::size_t laszip = 0; // first byte of the record's data
  std::uint32_t points = 0;
};

Layout layoutOf(const std::vector<std::uint8_t>& b) {
  Layout l;
  std::uint16_t header;
  std::uint32_t vlrs;
  std::memcpy(&header, b.data() + 94, 2);
  std::memcpy(&l.points, b.data() + 96, 4);
  std::memcpy(&vlrs, b.data() + 100, 4);
  for (std::size_t at = header, k = 0; k < vlrs; ++k) {
    std::uint16_t length;
    std::memcpy(&length, b.data() + at + 20, 2);
    if (std::memcmp(b.data() + at + 2, "laszip encoded", 14) == 0)
      l.laszip = at + 54;
    at += 54 + length;
  }
  return l;
}

TEST_F(LazFiles, DamagedFilesAreRefusedWithTheirReason) {
  const auto good = bytesOf(Sample / "simple.laz");
  const Layout l = layoutOf(good);
  ASSERT_GT(l.laszip, 0u);

  // Cut inside the chunk table.
  auto b =
      std::vector<std::uint8_t>(good.begin(), good.begin() + static_cast<long>(good.size()) - 1);
  expectRefused(b, "the chunk table is truncated");

  b = good; // the chunk table's offset beyond the end
  const std::int64_t far = 1 << 30;
  std::memcpy(b.data() + l.points, &far, 8);
  expectRefused(b, "the chunk table's offset 1073741824 lies outside the file");

  b = good; // chunks of 100 points: the table lists too few
  const std::uint32_t hundred = 100;
  std::memcpy(b.data() + l.laszip + 12, &hundred, 4);
  expectRefused(b, "the chunk table lists 1 chunks, 1065 points in chunks of 100 need 11");

  b = good;
  b[l.laszip] = 7;
  expectRefused(b, "compressor 7 is not supported");

  b = good; // the POINT10 item in version 3
  b[l.laszip + 34 + 4] = 3;
  expectRefused(b, "chunk 0 of 1: item type 6 version 3 is not supported");

  b = good; // the POINT10 item in version 1, the others in version 2
  b[l.laszip + 34 + 4] = 1;
  expectRefused(b, "chunk 0 of 1: its items mix versions 1 and 2");

  b = good; // no laszip record
  std::memcpy(b.data() + l.laszip - 54 + 2, "something else", 14);
  expectRefused(b, "compressed point data without its \"laszip encoded\" record");

  b = good; // a point format whose records the items would decode as other fields
  b[104] = 0x81;
  expectRefused(b, "point format 1 with 6 extra bytes needs the items (type:size) 6:20, 7:8, "
                   "0:6, the \"laszip encoded\" record lists 6:20, 7:8, 8:6");

  b = good; // a header that counts no points for a chunk table that lists some
  std::memset(b.data() + 107, 0, 4);
  expectRefused(b, "the header says 0 points, the chunk table lists 1 chunks");

  b = good; // more chunks than bytes: refused before anything is sized from the count
  std::int64_t tableAt;
  std::memcpy(&tableAt, b.data() + l.points, 8);
  const std::uint32_t many = 1u << 30;
  std::memcpy(b.data() + tableAt + 4, &many, 4);
  expectRefused(b, "the chunk table lists 1073741824 chunks, more than the " +
                       std::to_string(tableAt - l.points - 8) + " bytes of point data can hold");

  b = good; // both compression bits
  b[104] |= 0xC0;
  expectRefused(b, "point format byte 195 (both compression bits: an old compression) is not "
                   "supported");
}

TEST_F(LazFiles, CountsBeyondWhatTheBytesHoldAreRefusedBeforeSizing) {
  const auto good = bytesOf(Sample / "simple.laz");
  const Layout l = layoutOf(good);
  std::int64_t table;
  std::memcpy(&table, good.data() + l.points, 8);
  const std::uint64_t bytes = static_cast<std::uint64_t>(table) - l.points - 8;
  // The chunk table of variable chunks rewritten with the given point counts, the header's count
  // their sum, the chunk's bytes split between them.
  const auto variable = [&](const std::vector<std::uint64_t>& counts) {
    auto b = std::vector<std::uint8_t>(good.begin(), good.begin() + table);
    const std::uint32_t any = Quorvel::Laz::Description::VariableChunks;
    std::memcpy(b.data() + l.laszip + 12, &any, 4);
    std::vector<Quorvel::Laz::Chunk> chunks;
    std::uint64_t sum = 0;
    for (std::size_t k = 0; k < counts.size(); ++k) {
      const std::uint64_t share =
          k + 1 < counts.size() ? bytes / counts.size() : bytes - k * (bytes / counts.size());
      chunks.push_back({sum, counts[k], 0, share});
      sum += counts[k];
    }
    const auto total = static_cast<std::uint32_t>(sum);
    std::memcpy(b.data() + 107, &total, 4);
    Quorvel::Laz::appendChunkTable(b, chunks, true);
    return b;
  };
  // One chunk claiming 2e8 points, and the second of two chunks claiming 2^31: refused with the
  // chunk's bytes and the most they can hold (2048 points a byte and the raw first point).
  expectRefused(variable({200000000}), "chunk 0 of 1 holds " + std::to_string(bytes) +
                                           " bytes, too few for the " +
                                           "200000000 points it is given (at most " +
                                           std::to_string(1 + 2048 * bytes) + ", 2048 a byte)");
  const std::uint64_t second = bytes - bytes / 2;
  expectRefused(variable({1000, 2147483648u}),
                "chunk 1 of 2 holds " + std::to_string(second) + " bytes, too few for the " +
                    "2147483648 points it is given (at most " + std::to_string(1 + 2048 * second) +
                    ", 2048 a byte)");
  // The file's own table rewritten as variable chunks reads as before.
  const auto same = variable({1065});
  std::ofstream(file("same.laz"), std::ios::binary)
      .write(reinterpret_cast<const char*>(same.data()), static_cast<std::streamsize>(same.size()));
  EXPECT_EQ(Las::read(file("same.laz")).info.header.pointCount, 1065u);
}

TEST_F(LazFiles, ChunksThatLostBytesAreNotDecoded) {
  // Bytes cut from the middle of the chunk, the table moved up with them: the chunk no longer
  // fits before the table.
  auto b = bytesOf(Sample / "simple.laz");
  const Layout l = layoutOf(b);
  std::int64_t table;
  std::memcpy(&table, b.data() + l.points, 8);
  const std::size_t cut = 4000;
  std::vector<std::uint8_t> shorter(b.begin(), b.begin() + static_cast<long>(table) - cut);
  shorter.insert(shorter.end(), b.begin() + table, b.end());
  const std::int64_t moved = table - static_cast<std::int64_t>(cut);
  std::memcpy(shorter.data() + l.points, &moved, 8);
  expectRefused(shorter, "the chunks (" + std::to_string(table - l.points - 8) +
                             " bytes) run past the chunk table");
}

} // namespace
