// Tests of LAZ reading: real LAZ files decoded record for record against the LAS files holding
// the same records (two small pairs in data/, the shared corpus when present), tiled reads, and
// damaged or foreign files refused with their reason.
#include "io/las.hpp"

#include "support/ScratchDirectory.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

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

class Laz : public ScratchDirectory {
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

TEST_F(Laz, SmallFilesDecodeToTheirRecords) {
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

TEST_F(Laz, EveryFileOfTheCorpusDecodesToItsRecords) {
  if (!fs::exists(Shared / "laz"))
    GTEST_SKIP() << "shared LAZ corpus not present (" << (Shared / "laz").string() << ")";
  const std::pair<const char*, const char*> pairs[] = {
      {"laz/autzen_trim.laz", "real/autzen_trim.las"},
      {"laz/bcts_1.laz", "real/bcts_1.las"},
      {"laz/bcts_4.laz", "laz/bcts_4.decoded.las"},
      {"laz/lone-star.laz", "real/lone-star_tls.las"},
      {"laz/plane.laz", "real/plane_mls.las"},
      {"laz/simple.copc.laz", "laz/simple.copc.decoded.las"},
      {"laz/las_with_several_extra_byte_bloc.laz", "real/lidarhd_pf8_extrabytes.las"}};
  for (const auto& [laz, las] : pairs)
    expectRecords(Shared / laz, Shared / las);
}

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

TEST_F(Laz, DamagedFilesAreRefusedWithTheirReason) {
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

  b = good; // the POINT10 item in version 1
  b[l.laszip + 34 + 4] = 1;
  expectRefused(b, "chunk 0 of 1: item type 6 version 1 is not supported");

  b = good; // no laszip record
  std::memcpy(b.data() + l.laszip - 54 + 2, "something else", 14);
  expectRefused(b, "compressed point data without its \"laszip encoded\" record");

  b = good; // both compression bits
  b[104] |= 0xC0;
  expectRefused(b, "point format byte 195 (both compression bits: an old compression) is not "
                   "supported");
}

TEST_F(Laz, ChunksThatLostBytesAreNotDecoded) {
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
