// Tests of LAS reading and writing: lossless round trips of real files, format promotion, new
// fields as extra bytes, and one clear error for each kind of damaged file.
#include "io/las.hpp"
#include "tressel/PointCloud.hpp"

#include "support/ScratchDirectory.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;
using Vantor::PhysicalSpace::point;

const fs::path RealData = QUORVEL_REAL_DATA;

using LasFiles = ScratchDirectory;

// Every field's bytes, fragment after fragment.
std::map<std::string, std::pair<std::string, std::vector<std::uint8_t>>>
contents(const Tressel::Grid& grid) {
  std::map<std::string, std::pair<std::string, std::vector<std::uint8_t>>> out;
  auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot()) {
    auto& [type, bytes] = out[id->Name()];
    type = field->getElementType() ? field->getElementType()->name() : "";
    field->iterate([&](const auto&, const auto& creator) {
      const auto& chunk = creator->peekData()->myChunk();
      const auto* raw = static_cast<const std::uint8_t*>(chunk->rawData());
      bytes.insert(bytes.end(), raw, raw + chunk->byteSize());
      return true;
    });
  }
  return out;
}

TEST_F(LasFiles, RealFilesRoundTripWithoutLoss) {
  for (const char* name : {"sample_c.las", "autzen_trim_7.las", "lidarhd_pf8_extrabytes.las",
                           "nebraska_wkt_geotiff.las", "vegetation_1_3.las"}) {
    const auto path = RealData / name;
    if (!fs::exists(path))
      GTEST_SKIP() << "sample data not found at " << RealData;
    const auto first = Quorvel::Las::read(path.string(), 5000);
    Quorvel::Las::write(file("copy.las"), *first.grid, &first.info);
    const auto second = Quorvel::Las::read(file("copy.las"), 5000);
    EXPECT_EQ(second.info.header.pointFormat, first.info.header.pointFormat) << name;
    EXPECT_EQ(second.info.header.scale, first.info.header.scale) << name;
    EXPECT_EQ(second.info.header.offset, first.info.header.offset) << name;
    // The extra-bytes records are written as one; every other VLR is kept as it was.
    auto others = [](const Quorvel::Las::FileInfo& info) {
      std::vector<std::vector<std::uint8_t>> kept;
      for (const auto& v : info.vlrs)
        if (!(v.userId == "LASF_Spec" && v.recordId == 4))
          kept.push_back(v.data);
      return kept;
    };
    EXPECT_EQ(others(second.info), others(first.info)) << name;
    ASSERT_EQ(second.info.extraBytes.size(), first.info.extraBytes.size()) << name;
    for (std::size_t k = 0; k < first.info.extraBytes.size(); ++k)
      EXPECT_EQ(second.info.extraBytes[k].descriptor, first.info.extraBytes[k].descriptor) << name;
    EXPECT_EQ(second.info.evlrs.size(), first.info.evlrs.size()) << name;
    const auto a = contents(*first.grid), b = contents(*second.grid);
    ASSERT_EQ(a.size(), b.size()) << name;
    for (const auto& [field, value] : a) {
      ASSERT_TRUE(b.count(field)) << name << " " << field;
      EXPECT_EQ(b.at(field).first, value.first) << name << " " << field;
      EXPECT_TRUE(b.at(field).second == value.second) << name << " " << field;
    }
  }
}

TEST_F(LasFiles, FieldsFragmentsAndOrder) {
  const auto path = RealData / "lidarhd_pf8_extrabytes.las";
  if (!fs::exists(path))
    GTEST_SKIP() << "sample data not found";
  const auto cloud = Quorvel::Las::read(path.string(), 1000);
  auto& grid = *cloud.grid;
  auto positions = grid.CartesianPositions();
  ASSERT_NE(positions, nullptr);
  EXPECT_GT(positions->nFragments(), 1u);
  for (const char* field : {"Classification", "Intensity", "ReturnNumber", "NumberOfReturns",
                            "LastReturn", "GpsTime", "RGB", "NIR", "PointIndex", "ScanAngle"})
    EXPECT_NE(grid(Tressel::StandardCartesianChart3D, field), nullptr) << field;
  EXPECT_FALSE(cloud.info.extraBytes.empty());
  for (const auto& extra : cloud.info.extraBytes)
    EXPECT_NE(grid(Tressel::StandardCartesianChart3D, extra.name), nullptr) << extra.name;
  // LastReturn is 1 exactly where the return number equals the number of returns.
  const auto rn =
      Tressel::readField<unsigned char>(*grid(Tressel::StandardCartesianChart3D, "ReturnNumber"));
  const auto nr = Tressel::readField<unsigned char>(
      *grid(Tressel::StandardCartesianChart3D, "NumberOfReturns"));
  const auto last =
      Tressel::readField<unsigned char>(*grid(Tressel::StandardCartesianChart3D, "LastReturn"));
  for (std::size_t i = 0; i < rn.size(); ++i)
    ASSERT_EQ(last[i], rn[i] == nr[i] ? 1 : 0);
  // One fragment when the target is at or above the point count.
  EXPECT_EQ(Quorvel::Las::read(path.string(), 1u << 30).grid->CartesianPositions()->nFragments(),
            1u);
}

TEST_F(LasFiles, HighClassesPromoteTheFormatAndNewFieldsBecomeExtraBytes) {
  Tressel::PointCloudBuilder builder({{1.5, 2.25, 3.125}, {4, 5, 6}});
  builder.addField("Classification", std::vector<unsigned char>{2, 200});
  builder.addField("Planarity", std::vector<float>{0.25f, 0.75f});
  auto grid = builder.build({{1}, {0}});
  Quorvel::Las::FileInfo info;
  info.header.pointFormat = 1;
  info.header.recordLength = 28;
  Quorvel::Las::write(file("new.las"), *grid, &info);
  const auto back = Quorvel::Las::read(file("new.las"));
  EXPECT_EQ(back.info.header.pointFormat, 6);
  ASSERT_EQ(back.info.extraBytes.size(), 1u);
  EXPECT_EQ(back.info.extraBytes[0].name, "Planarity");
  // Without "PointIndex" the points are written fragment after fragment.
  EXPECT_EQ(Tressel::readField<unsigned char>(
                *(*back.grid)(Tressel::StandardCartesianChart3D, "Classification")),
            (std::vector<unsigned char>{200, 2}));
  EXPECT_EQ(
      Tressel::readField<float>(*(*back.grid)(Tressel::StandardCartesianChart3D, "Planarity")),
      (std::vector<float>{0.75f, 0.25f}));
  EXPECT_EQ(Tressel::readField<point>(*back.grid->CartesianPositions())[1],
            (point{1.5, 2.25, 3.125}));

  Tressel::PointCloudBuilder bad({{std::nan(""), 0, 0}});
  EXPECT_THROW(Quorvel::Las::write(file("nan.las"), *bad.build({{0}})), Quorvel::Las::Error);
  EXPECT_FALSE(fs::exists(file("nan.las")));
}

// A copy of sample_c.las with some bytes changed or the file cut.
std::string damaged(const std::string& to, std::size_t keep,
                    const std::function<void(std::vector<char>&)>& change) {
  std::ifstream in(RealData / "sample_c.las", std::ios::binary);
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  bytes.resize(std::min(keep, bytes.size()));
  if (change)
    change(bytes);
  std::ofstream(to, std::ios::binary)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return to;
}

TEST_F(LasFiles, DamagedFilesGiveOneClearError) {
  if (!fs::exists(RealData / "sample_c.las"))
    GTEST_SKIP() << "sample data not found";
  auto message = [](const std::string& path) {
    try {
      Quorvel::Las::read(path);
    } catch (const Quorvel::Las::Error& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  const std::size_t all = 1u << 30;
  auto setU16 = [](std::size_t at, std::uint16_t v) {
    return [=](std::vector<char>& b) { std::memcpy(b.data() + at, &v, 2); };
  };
  const std::string header = damaged(file("header.las"), 100, nullptr);
  EXPECT_EQ(message(header), header + ": truncated header (100 of 227 bytes)");
  const std::string points = damaged(file("points.las"), 227 + 34 * 100, nullptr);
  EXPECT_EQ(message(points), points + ": point count 14408 is larger than the file holds (100)");
  const std::string record = damaged(file("record.las"), all, setU16(105, 20));
  EXPECT_EQ(message(record),
            record + ": point record length 20 is shorter than point format 3 needs (34)");
  const std::string format11 =
      damaged(file("format11.las"), all, [](std::vector<char>& b) { b[104] = 11; });
  EXPECT_EQ(message(format11), format11 + ": point format 11 is not supported");
  const std::string foreign = file("foreign.las");
  std::ofstream(foreign) << "x,y,z\n1,2,3\n";
  EXPECT_EQ(message(foreign), foreign + ": not a LAS file (no LASF signature)");
  EXPECT_EQ(message(file("absent.las")), file("absent.las") + ": no such file");
  const std::string vlr = damaged(file("vlr.las"), all, [](std::vector<char>& b) {
    const std::uint32_t count = 1;
    std::memcpy(b.data() + 100, &count, 4); // a VLR that does not fit before the points
  });
  EXPECT_EQ(message(vlr), vlr + ": truncated VLR 0");

  // A record that is too short for its extra-bytes dimensions.
  Tressel::PointCloudBuilder builder({{1, 2, 3}, {4, 5, 6}});
  builder.addField("Planarity", std::vector<double>{0.5, 0.25});
  const std::string extra = file("extra.las");
  Quorvel::Las::write(extra, *builder.build({{0, 1}}));
  std::fstream patch(extra, std::ios::in | std::ios::out | std::ios::binary);
  const std::uint16_t base = 30;
  patch.seekp(105);
  patch.write(reinterpret_cast<const char*>(&base), 2);
  patch.close();
  EXPECT_EQ(message(extra), extra + ": extra-bytes descriptors overrun the point record");
}

} // namespace
