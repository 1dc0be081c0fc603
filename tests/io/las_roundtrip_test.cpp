// SPDX-License-Identifier: BSD-3-Clause
// Round trips of every file of the shared LAS corpus, LAS -> LAS and LAS -> bundle -> LAS, judged
// on the files themselves by the independent parser of las_bytes.hpp: the copy must keep the
// version, point format, scale, offset, header identity, VLRs, EVLRs and every point record byte.
// The corpus tests are named Corpus* and skip when the corpus is absent; the parser's own test
// runs on the sample files of data/. Normals* check normal vectors in the file's own bytes.
#include "las_bytes.hpp"

#include "io/las.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>

namespace {

namespace fs = std::filesystem;

const fs::path SampleData = QUORVEL_SAMPLE_DATA;
const fs::path RealData = QUORVEL_REAL_DATA;

std::vector<fs::path> corpusFiles() {
  std::vector<fs::path> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(RealData, error))
    if (entry.path().extension() == ".las")
      files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

LasBytes::File parseFile(const std::string& path, std::string& error) {
  return LasBytes::parse(LasBytes::bytesOf(path), error);
}

// Copies each corpus file with copy(input, output) and compares the two files, one failure
// (the first class of difference) per file.
class Corpus : public ScratchDirectory {
protected:
  void roundTrip(const std::function<void(const std::string&, const std::string&)>& copy) {
    const auto files = corpusFiles();
    if (files.empty())
      GTEST_SKIP() << "shared LAS corpus not present (" << RealData.string() << ")";
    for (const auto& path : files) {
      SCOPED_TRACE(path.filename().string());
      std::string error;
      const auto input = parseFile(path.string(), error);
      ASSERT_EQ(error, "") << "the test's parser rejects the corpus file";
      const std::string output = file("copy.las");
      fs::remove(output);
      try {
        copy(path.string(), output);
      } catch (const std::exception& e) {
        ADD_FAILURE() << "copying failed: " << e.what();
        continue;
      }
      if (!fs::exists(output)) {
        ADD_FAILURE() << "no copy was written";
        continue;
      }
      const auto copied = parseFile(output, error);
      if (!error.empty()) {
        ADD_FAILURE() << "the copy is not a readable LAS file: " << error;
        continue;
      }
      const std::string difference = LasBytes::firstDifference(input, copied);
      EXPECT_EQ(difference, "") << "the copy lost something";
    }
  }
};

TEST_F(Corpus, LasToLasKeepsEveryRecordAndPointByte) {
  roundTrip([](const std::string& input, const std::string& output) {
    Quorvel::Las::write(output, *Quorvel::Las::read(input).grid);
  });
}

TEST_F(Corpus, LasToBundleToLasKeepsEveryRecordAndPointByte) {
  roundTrip([this](const std::string& input, const std::string& output) {
    const std::string bundlePath = file("cloud.h5");
    {
      Tressel::Bundle out;
      ASSERT_TRUE(out.bindToNew(bundlePath, std::make_shared<Tressel::StorageTransformations>()));
      out[0.0]->setGrid("cloud", Quorvel::Las::read(input).grid);
      ASSERT_TRUE(out.save()) << out.lastError();
    }
    Tressel::Bundle in;
    ASSERT_TRUE(in.bindTo(bundlePath)) << in.lastError();
    const auto slice = in.findSlice(0.0);
    ASSERT_TRUE(slice && (*slice)["cloud"]) << "the bundle lost its grid";
    Quorvel::Las::write(output, *(*slice)["cloud"]);
  });
}

// Sets bytes of a copy of a file at a position.
template <class T>
std::vector<std::uint8_t> patched(std::vector<std::uint8_t> bytes, std::size_t pos, T value) {
  std::memcpy(bytes.data() + pos, &value, sizeof value);
  return bytes;
}

// The oracle is only as good as its parser and its comparison: each kind of change made to the
// bytes of a real file must be found and named, and the file must be found equal to itself.
TEST(LasBytesOracle, FindsEachKindOfChangeAndNamesIt) {
  // LAS 1.4 format 6 with four VLRs (WKT and GeoTIFF).
  const auto original = LasBytes::bytesOf((SampleData / "nebraska_wkt_geotiff.las").string());
  std::string error;
  const auto a = LasBytes::parse(original, error);
  ASSERT_EQ(error, "");
  ASSERT_EQ(a.vlrs.size(), 4u);
  ASSERT_EQ(a.pointFormat, 6);
  ASSERT_GT(a.pointCount, 1000u);
  EXPECT_EQ(LasBytes::firstDifference(a, a), "");

  const std::size_t headerSize = LasBytes::at<std::uint16_t>(original, 94);
  const std::size_t pointOffset = LasBytes::at<std::uint32_t>(original, 96);
  const std::size_t firstPayload = headerSize + 54;
  const std::size_t point7 = pointOffset + 7 * a.recordLength;
  const std::string n = std::to_string(a.pointCount);
  const struct {
    const char* change;
    std::vector<std::uint8_t> bytes;
    std::string expected; // a part of the message
  } cases[] = {
      {"version", patched<std::uint8_t>(original, 25, 2),
       "LAS 1.4 format 6 of 30 bytes became LAS 1.2 format 6 of 30 bytes"},
      {"y scale", patched(original, 139, 0.0123), "became scale 0.001 0.0123 0.001"},
      {"z offset", patched(original, 171, 1.0), "offset 2445000 603000 1"},
      {"system identifier", patched(original, 26, 'Q'), "header identity: "},
      {"GUID", patched<std::uint8_t>(original, 20, 0xAB), "header identity: "},
      {"creation year", patched<std::uint16_t>(original, 92, 1999), "header identity: "},
      {"VLR record id", patched<std::uint16_t>(original, headerSize + 18, 9999),
       "VLR 0: \"LASF_Projection\" 34735 \"Georeferencing Information\" (112 bytes) became "
       "\"LASF_Projection\" 9999"},
      {"VLR description", patched(original, headerSize + 22, 'x'), "VLR 0: "},
      {"VLR payload", patched<std::uint8_t>(original, firstPayload, 0xFF),
       "(112 bytes) with other payload bytes"},
      {"point count", patched<std::uint64_t>(original, 247, a.pointCount - 1),
       n + " points became " + std::to_string(a.pointCount - 1)},
      {"X of point 7", patched<std::int32_t>(original, point7, a.integer(7, 0) + 1),
       "1 of " + n + " points have other integer coordinates; point 7: "},
      {"intensity of point 7", patched<std::uint16_t>(original, point7 + 12, 12345),
       "1 of " + n + " point records differ after X, Y, Z; record 7: "},
      {"last byte of point 7", patched<std::uint8_t>(original, point7 + a.recordLength - 1, 0x5A),
       "1 of " + n + " point records differ after X, Y, Z; record 7: "},
      // Every record then starts one byte early: the fault of a writer that miscounts the VLRs.
      {"offset to point data one byte back",
       patched<std::uint32_t>(original, 96, static_cast<std::uint32_t>(pointOffset - 1)),
       " points have other integer coordinates; point 0: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.change);
    const auto b = LasBytes::parse(c.bytes, error);
    ASSERT_EQ(error, "");
    const std::string difference = LasBytes::firstDifference(a, b);
    ASSERT_NE(difference, "");
    EXPECT_NE(difference.find(c.expected), std::string::npos) << difference;
  }
}

TEST(LasBytesOracle, ReadsThePointsOfEverySampleFileWithinItsBoundingBox) {
  // Records read at the wrong place or with the wrong length would scatter outside the box the
  // file declares; a coordinate rounded by the writer of the file may sit half a step outside.
  for (const char* name :
       {"sample_c.las", "nebraska_wkt_geotiff.las", "vegetation_1_3.las", "hexbin-crop.las"}) {
    SCOPED_TRACE(name);
    std::string error;
    const auto f = parseFile((SampleData / name).string(), error);
    ASSERT_EQ(error, "");
    ASSERT_GT(f.pointCount, 0u);
    std::uint64_t outside = 0;
    for (std::uint64_t k = 0; k < f.pointCount; ++k)
      for (int axis = 0; axis < 3; ++axis) {
        const double v = f.integer(k, axis) * f.scale[axis] + f.offset[axis];
        const double slack = f.scale[axis];
        outside += v < f.min[axis] - slack || v > f.max[axis] + slack;
      }
    EXPECT_EQ(outside, 0u);
  }
}

TEST(LasBytesOracle, RejectsRecordsBeyondTheFile) {
  const auto original = LasBytes::bytesOf((SampleData / "nebraska_wkt_geotiff.las").string());
  std::string error;
  const std::size_t headerSize = LasBytes::at<std::uint16_t>(original, 94);
  const struct {
    std::vector<std::uint8_t> bytes;
    const char* expected;
  } cases[] = {
      {{original.begin(), original.begin() + 200}, "not a LAS file"},
      {{original.begin(), original.end() - 1}, "point records past the end of the file"},
      {patched<std::uint16_t>(original, headerSize + 20, 0xFFFF),
       "VLR 0 payload past the offset to point data"},
      {patched<std::uint32_t>(original, 100, 1000), "VLR 4 header past the offset to point data"},
      {patched<std::uint32_t>(original, 243, 1), "EVLR start outside the bytes after the points"},
  };
  for (const auto& c : cases) {
    LasBytes::parse(c.bytes, error);
    EXPECT_EQ(error, c.expected);
  }
}

using Vantor::PhysicalSpace::vector;
using Names = std::vector<std::pair<std::string, std::string>>;

// Name and data type of each extra-bytes descriptor of a file.
Names descriptorsOf(const LasBytes::File& f) {
  Names out;
  for (const auto& r : f.vlrs)
    if (r.userId == "LASF_Spec" && r.recordId == 4)
      for (std::size_t at = 0; at + 192 <= r.payload.size(); at += 192)
        out.emplace_back(LasBytes::text(r.payload, at + 4, 32), std::to_string(r.payload[at + 2]));
  return out;
}

// Name and element type of each field of a grid, in order.
Names fieldsOf(const Tressel::Grid& grid) {
  Names out;
  for (const auto& [id, field] :
       grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D)->snapshot())
    out.emplace_back(id->Name(), field->getElementType()->name());
  return out;
}

std::vector<vector> normalsOf(const Tressel::Grid& grid) {
  return Tressel::readField<vector>(*grid(Tressel::StandardCartesianChart3D, "NormalVector"));
}

// Writes a grid and reads the file both ways; then the copy of what was read must keep every byte.
class Normals : public ScratchDirectory {
protected:
  Quorvel::Las::ReadResult writeAndRead(const Tressel::Grid& grid) {
    Quorvel::Las::write(file("a.las"), grid);
    std::string error;
    written = parseFile(file("a.las"), error);
    EXPECT_EQ(error, "");
    auto back = Quorvel::Las::read(file("a.las"));
    EXPECT_EQ(Quorvel::Las::summarize(file("a.las")).fields, fieldsOf(*back.grid));
    Quorvel::Las::write(file("b.las"), *back.grid);
    EXPECT_EQ(LasBytes::firstDifference(written, parseFile(file("b.las"), error)), "");
    return back;
  }
  LasBytes::File written;
};

TEST_F(Normals, AFieldOfVectorsIsWrittenAsThreeFloat32DimensionsAndReadAsOne) {
  const std::vector<vector> normals = {{0.1, 0.2, 0.97}, {-1.0 / 3, 2.0 / 3, 1e-9}};
  Tressel::PointCloudBuilder builder({{1, 2, 3}, {4, 5, 6}});
  builder.addField("NormalVector", normals);
  const auto back = writeAndRead(*builder.build({{0, 1}}));
  EXPECT_EQ(descriptorsOf(written), (Names{{"NormalX", "9"}, {"NormalY", "9"}, {"NormalZ", "9"}}));
  std::vector<vector> rounded;
  for (std::uint64_t j = 0; j < 2; ++j) {
    const vector& v = normals[j];
    const float xyz[3] = {float(v.x), float(v.y), float(v.z)};
    EXPECT_EQ(std::memcmp(written.record(j) + 30, xyz, 12), 0) << "point " << j;
    // Not read from xyz: GCC 12's vectorizer then passes on the doubles, not the floats.
    rounded.push_back({float(v.x), float(v.y), float(v.z)});
  }
  EXPECT_EQ(normalsOf(*back.grid), rounded);
  EXPECT_EQ((*back.grid)(Tressel::StandardCartesianChart3D, "NormalX"), nullptr);
}

TEST_F(Normals, Float64NormalsOfAFileAreReadExactlyAndWrittenBackAsTheyWere) {
  // Written from plain numbers, with another dimension between the components.
  Tressel::PointCloudBuilder builder({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
  builder.addField("NormalX", std::vector<double>{0.1, -1.0 / 3, 0});
  builder.addField("Amplitude", std::vector<float>{1, 2, 3});
  builder.addField("NormalY", std::vector<double>{0.2, 2.0 / 3, 0});
  builder.addField("NormalZ", std::vector<double>{0.3, 1e-300, -1});
  const auto back = writeAndRead(*builder.build({{0, 1, 2}}));
  EXPECT_EQ(descriptorsOf(written),
            (Names{{"NormalX", "10"}, {"Amplitude", "9"}, {"NormalY", "10"}, {"NormalZ", "10"}}));
  const std::vector<vector> exact = {{0.1, 0.2, 0.3}, {-1.0 / 3, 2.0 / 3, 1e-300}, {0, 0, -1}};
  EXPECT_EQ(normalsOf(*back.grid), exact);
  const Names fields = fieldsOf(*back.grid); // normals in the place of NormalX
  const auto at =
      std::find(fields.begin(), fields.end(), Names::value_type{"NormalVector", "vector"});
  EXPECT_TRUE(at != fields.end() && at[1].first == "Amplitude");
  // Tiles and a cloud of only the normals hold the same vectors.
  const auto tiles = Quorvel::Las::read(file("a.las"), 1, {}, {"NormalVector"});
  const auto index = Tressel::readField<unsigned long long>(
      *(*tiles.grid)(Tressel::StandardCartesianChart3D, "PointIndex"));
  const auto tiled = normalsOf(*tiles.grid);
  for (std::size_t g = 0; g < index.size(); ++g)
    EXPECT_EQ(tiled[g], exact[index[g]]);
  EXPECT_EQ(fieldsOf(*tiles.grid).size(), 3u);
}

TEST_F(Normals, IncompleteOrIntegerNormalsStayNumbers) {
  const auto one = [](auto v) { return std::vector<decltype(v)>{v}; };
  Tressel::PointCloudBuilder noZ({{1, 2, 3}}), integerX = noZ, named = noZ;
  noZ.addField("NormalX", one(0.5f)).addField("NormalY", one(0.5f));
  integerX.addField("NormalX", one(1))
      .addField("NormalY", one(0.5f))
      .addField("NormalZ", one(0.5f));
  // A dimension named like the field of vectors keeps the components apart.
  named.addField("NormalX", one(0.5)).addField("NormalY", one(0.5)).addField("NormalZ", one(0.5));
  named.addField("NormalVector", one(0.5));
  const auto normalFields = [](Names fields) {
    std::erase_if(fields, [](const auto& f) { return !f.first.starts_with("Normal"); });
    return fields;
  };
  for (const auto* builder : {&noZ, &integerX, &named}) {
    const auto grid = builder->build({{0}});
    EXPECT_EQ(normalFields(fieldsOf(*writeAndRead(*grid).grid)), normalFields(fieldsOf(*grid)));
  }
}

} // namespace
