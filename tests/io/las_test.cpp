// SPDX-License-Identifier: BSD-3-Clause
// Tests of LAS reading and writing: lossless round trips of real files directly and through a
// bundle, tiles against one fragment, format changes, new fields as extra bytes, write options,
// safe replacement of files, progress and the summary.
#include "io/las.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

namespace {

namespace fs = std::filesystem;
using Vantor::PhysicalSpace::point;

const fs::path SampleData = QUORVEL_SAMPLE_DATA;

using LasFiles = ScratchDirectory;

std::vector<char> bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Every field's element type and bytes, fragment after fragment.
std::map<std::string, std::pair<std::string, std::vector<std::uint8_t>>>
contents(const Tressel::Grid& grid) {
  std::map<std::string, std::pair<std::string, std::vector<std::uint8_t>>> out;
  auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot()) {
    auto& entry = out[id->Name()];
    entry.first = field->getElementType() ? field->getElementType()->name() : "";
    auto& bytes = entry.second;
    field->iterate([&](const auto&, const auto& creator) {
      const auto& chunk = creator->peekData()->myChunk();
      const auto* raw = static_cast<const std::uint8_t*>(chunk->rawData());
      bytes.insert(bytes.end(), raw, raw + chunk->byteSize());
      return true;
    });
  }
  return out;
}

template <class T>
std::vector<T> values(const Tressel::Grid& grid, const std::string& name) {
  return Tressel::readField<T>(*grid(Tressel::StandardCartesianChart3D, name));
}

// Saves a grid in a bundle and loads it back.
Basalt::StrongPtr<Tressel::Grid> throughBundle(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                               const std::string& path) {
  auto out = std::make_shared<Tressel::Bundle>();
  EXPECT_TRUE(out->bindToNew(path, nullptr));
  (*out)[0.0]->setGrid("cloud", grid);
  EXPECT_TRUE(out->save()) << out->lastError();
  auto in = std::make_shared<Tressel::Bundle>();
  EXPECT_TRUE(in->bindTo(path)) << in->lastError();
  return (*in->findSlice(0.0))["cloud"];
}

TEST_F(LasFiles, SampleFilesRoundTripWithoutLossDirectlyAndThroughABundle) {
  // LAS 1.2 format 3; LAS 1.4 format 6 with WKT and GeoTIFF records; LAS 1.3 format 1 with
  // negative coordinates; a z scale of 1e-5.
  for (const char* name :
       {"sample_c.las", "nebraska_wkt_geotiff.las", "vegetation_1_3.las", "hexbin-crop.las"}) {
    const std::string path = (SampleData / name).string();
    const auto first = Quorvel::Las::read(path);
    Quorvel::Las::write(file("direct.las"), *first.grid);
    Quorvel::Las::write(file("bundled.las"), *throughBundle(first.grid, file("cloud.h5")));
    // Both copies are the same bytes: the bundle kept everything LAS needs.
    EXPECT_TRUE(bytesOf(file("direct.las")) == bytesOf(file("bundled.las"))) << name;

    const auto second = Quorvel::Las::read(file("bundled.las"));
    const Quorvel::Las::Header &a = first.info.header, &b = second.info.header;
    EXPECT_EQ(b.versionMinor, a.versionMinor) << name;
    EXPECT_EQ(b.pointFormat, a.pointFormat) << name;
    EXPECT_EQ(b.scale, a.scale) << name;
    EXPECT_EQ(b.offset, a.offset) << name;
    EXPECT_EQ(b.recordLength, a.recordLength) << name;
    EXPECT_EQ(
        std::tie(b.systemId, b.software, b.fileSourceId, b.globalEncoding, b.guid, b.day, b.year),
        std::tie(a.systemId, a.software, a.fileSourceId, a.globalEncoding, a.guid, a.day, a.year))
        << name;
    ASSERT_EQ(second.info.vlrs.size(), first.info.vlrs.size()) << name;
    for (std::size_t k = 0; k < first.info.vlrs.size(); ++k) {
      const auto &v = first.info.vlrs[k], &w = second.info.vlrs[k];
      EXPECT_EQ(std::tie(w.userId, w.recordId, w.description, w.data),
                std::tie(v.userId, v.recordId, v.description, v.data))
          << name << " VLR " << k;
    }
    EXPECT_EQ(second.info.evlrs.size(), first.info.evlrs.size()) << name;
    const auto before = contents(*first.grid), after = contents(*second.grid);
    ASSERT_EQ(after.size(), before.size()) << name;
    for (const auto& [field, value] : before) {
      ASSERT_TRUE(after.count(field)) << name << " " << field;
      EXPECT_EQ(after.at(field).first, value.first) << name << " " << field;
      EXPECT_TRUE(after.at(field).second == value.second) << name << " " << field;
    }
  }
}

TEST_F(LasFiles, TilesHoldTheValuesOfOneFragmentInFileOrder) {
  const std::string path = (SampleData / "sample_c.las").string();
  const auto whole = Quorvel::Las::read(path);
  const auto tiled = Quorvel::Las::read(path, 1000);
  ASSERT_EQ(whole.grid->CartesianPositions()->nFragments(), 1u);
  ASSERT_GT(tiled.grid->CartesianPositions()->nFragments(), 5u);
  const auto index = values<unsigned long long>(*tiled.grid, "PointIndex");
  EXPECT_EQ((*whole.grid)(Tressel::StandardCartesianChart3D, "PointIndex"), nullptr);
  // Each field of the tiles, put back in file order, is the field of the whole file.
  const auto w = contents(*whole.grid), t = contents(*tiled.grid);
  ASSERT_EQ(w.size() + 1, t.size());
  for (const auto& [field, value] : w) {
    const auto& [type, tiles] = t.at(field);
    const std::size_t size = value.second.size() / index.size();
    std::vector<std::uint8_t> ordered(value.second.size());
    for (std::size_t g = 0; g < index.size(); ++g)
      std::memcpy(ordered.data() + index[g] * size, tiles.data() + g * size, size);
    EXPECT_TRUE(ordered == value.second) << field;
  }
  // Within a tile, file order; and the tiles written back give the file of the whole.
  tiled.grid->CartesianPositions()->iterate(
      [&, g = std::size_t(0)](const auto&, const auto& creator) mutable {
        const std::size_t n = creator->peekData()->nElements();
        for (std::size_t j = 1; j < n; ++j)
          EXPECT_LT(index[g + j - 1], index[g + j]);
        g += n;
        return true;
      });
  Quorvel::Las::write(file("whole.las"), *whole.grid);
  Quorvel::Las::write(file("tiled.las"), *tiled.grid);
  EXPECT_TRUE(bytesOf(file("whole.las")) == bytesOf(file("tiled.las")));
}

TEST_F(LasFiles, ACloudReadForSearchingHoldsOnlyTheFieldsAsked) {
  const std::string path = (SampleData / "sample_c.las").string();
  const auto w = contents(*Quorvel::Las::read(path).grid);
  for (std::size_t points : {std::size_t(0), std::size_t(1000)}) {
    const auto some = Quorvel::Las::read(path, points, {}, {"Classification", "GpsTime", "RGB"});
    const auto s = contents(*some.grid);
    std::vector<std::string> names;
    for (const auto& [field, value] : s)
      names.push_back(field);
    std::vector<std::string> expected = {"Classification", "GpsTime", "Positions", "RGB"};
    if (points > 0)
      expected.push_back("PointIndex");
    std::sort(names.begin(), names.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected) << points;
    if (points == 0) {
      for (const auto& field : {"Classification", "GpsTime", "Positions", "RGB"})
        EXPECT_TRUE(s.at(field) == w.at(field)) << field;
    }
    EXPECT_TRUE(Quorvel::Las::fileInfo(*some.grid).has_value());
  }
}

TEST_F(LasFiles, FormatsMoveOnlyWhereAFieldNeedsIt) {
  const std::string path = (SampleData / "vegetation_1_3.las").string(); // LAS 1.3, format 1
  auto cloud = Quorvel::Las::read(path);
  ASSERT_EQ(cloud.info.header.pointFormat, 1);
  const std::size_t n = values<point>(*cloud.grid, "Positions").size();

  struct Case {
    const char* what;
    std::function<void(Tressel::Grid&)> change;
    int format, minor;
    std::string warning; // what write() says of the move, given to options.warn
  };
  auto setField = [n](const char* name, auto value) {
    return [=](Tressel::Grid& grid) {
      auto field = grid(Tressel::StandardCartesianChart3D, name);
      field->iterate([&](const auto&, const auto& creator) {
        auto* data = static_cast<decltype(value)*>(creator->peekData()->myChunk()->rawData());
        std::fill(data, data + n, value);
        return true;
      });
    };
  };
  const std::vector<Case> cases = {
      {"unchanged", [](Tressel::Grid&) {}, 1, 3, ""},
      {"class 32", setField("Classification", static_cast<unsigned char>(32)), 6, 4,
       "writing LAS 1.4 point format 6 instead of LAS 1.3 point format 1 (for classes above 31)"},
      {"return 8", setField("ReturnNumber", static_cast<unsigned char>(8)), 6, 4,
       "writing LAS 1.4 point format 6 instead of LAS 1.3 point format 1 (for ReturnNumber above "
       "7)"},
  };
  for (const Case& c : cases) {
    auto copy = Quorvel::Las::read(path).grid;
    c.change(*copy);
    std::string warned;
    Quorvel::Las::WriteOptions options;
    options.warn = [&](const std::string& text) { warned += text; };
    testing::internal::CaptureStderr();
    Quorvel::Las::write(file("out.las"), *copy, options);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.what;
    EXPECT_EQ(warned, c.warning) << c.what;
    const auto back = Quorvel::Las::read(file("out.las"));
    EXPECT_EQ(back.info.header.pointFormat, c.format) << c.what;
    EXPECT_EQ(back.info.header.versionMinor, c.minor) << c.what;
    EXPECT_EQ(values<unsigned char>(*back.grid, "Classification"),
              values<unsigned char>(*copy, "Classification"))
        << c.what;
    EXPECT_EQ(values<point>(*back.grid, "Positions"), values<point>(*copy, "Positions")) << c.what;
  }

  // RGB on a format-1 grid: format 3, the smallest with GPS time and colour.
  Tressel::PointCloudBuilder builder({{1.5, 2.25, 3.125}, {4, 5, 6}});
  builder.addField("RGB", std::vector<Vantor::RGB16>{{1, 2, 3}, {4, 5, 6}});
  builder.addField("Planarity", std::vector<float>{0.25f, 0.75f});
  builder.addField("Classification", std::vector<unsigned char>{2, 40});
  auto grid = builder.build({{1}, {0}});
  Quorvel::Las::FileInfo info = cloud.info;
  Quorvel::Las::setFileInfo(*grid, info);
  Quorvel::Las::write(file("new.las"), *grid);
  const auto back = Quorvel::Las::read(file("new.las"));
  EXPECT_EQ(back.info.header.pointFormat, 7); // colour and a class above 31
  ASSERT_EQ(back.info.extraBytes.size(), 1u);
  EXPECT_EQ(back.info.extraBytes[0].name, "Planarity");
  // Without "PointIndex" the points are written fragment after fragment.
  EXPECT_EQ(values<unsigned char>(*back.grid, "Classification"),
            (std::vector<unsigned char>{40, 2}));
  EXPECT_EQ(values<float>(*back.grid, "Planarity"), (std::vector<float>{0.75f, 0.25f}));
  EXPECT_EQ(values<Vantor::RGB16>(*back.grid, "RGB")[0], (Vantor::RGB16{4, 5, 6}));
  EXPECT_EQ(values<point>(*back.grid, "Positions")[1], (point{1.5, 2.25, 3.125}));
}

TEST_F(LasFiles, ScaleAndOffsetFollowTheGridOrTheOptions) {
  Tressel::PointCloudBuilder builder({{1000.25, -20.5, 3.125}, {1010.75, 4, 6}});
  auto grid = builder.build({{0, 1}});
  Quorvel::Las::write(file("plain.las"), *grid);
  auto back = Quorvel::Las::read(file("plain.las"));
  EXPECT_EQ(back.info.header.versionMinor, 4);
  EXPECT_EQ(back.info.header.pointFormat, 6);
  EXPECT_EQ(back.info.header.scale, (std::array<double, 3>{0.001, 0.001, 0.001}));
  EXPECT_EQ(back.info.header.offset, (std::array<double, 3>{1000, -21, 3}));
  EXPECT_EQ(back.info.header.min, (std::array<double, 3>{1000.25, -20.5, 3.125}));

  // A grid from LAS keeps its origin unless the options say otherwise.
  Quorvel::Las::WriteOptions options;
  options.scale = std::array<double, 3>{0.25, 0.5, 0.125};
  Quorvel::Las::write(file("scaled.las"), *back.grid, options);
  const auto scaled = Quorvel::Las::read(file("scaled.las"));
  EXPECT_EQ(scaled.info.header.scale, *options.scale);
  EXPECT_EQ(scaled.info.header.offset, back.info.header.offset);
  EXPECT_EQ(values<point>(*scaled.grid, "Positions")[0], (point{1000.25, -20.5, 3.125}));
  Quorvel::Las::setFileInfo(*scaled.grid, [&] {
    auto info = scaled.info;
    info.header.offset = {7, 7, 7};
    return info;
  }());
  Quorvel::Las::WriteOptions automatic;
  automatic.autoOffset = true;
  Quorvel::Las::write(file("auto.las"), *scaled.grid, automatic);
  EXPECT_EQ(Quorvel::Las::read(file("auto.las")).info.header.offset,
            (std::array<double, 3>{1000, -21, 3}));
  EXPECT_EQ(Quorvel::Las::read(file("auto.las")).info.header.scale, *options.scale);

  options.scale = std::array<double, 3>{0, 1, 1};
  EXPECT_THROW(Quorvel::Las::write(file("zero.las"), *grid, options), Quorvel::Las::Error);
}

TEST_F(LasFiles, AFailedWriteLeavesTheEarlierFileIntact) {
  const std::string target = file("kept.las");
  Tressel::PointCloudBuilder good({{1, 2, 3}});
  Quorvel::Las::write(target, *good.build({{0}}));
  const auto earlier = bytesOf(target);
  auto expectError = [&](const Tressel::Grid& grid, const std::string& text) {
    try {
      Quorvel::Las::write(target, grid);
      ADD_FAILURE() << "no error for " << text;
    } catch (const Quorvel::Las::Error& e) {
      EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
    }
    EXPECT_TRUE(bytesOf(target) == earlier) << text;
    EXPECT_EQ(filesInDir(), 1u) << text; // no temporary left behind
  };
  Tressel::PointCloudBuilder nan({{std::nan(""), 0, 0}});
  expectError(*nan.build({{0}}), "coordinate nan of point 0 does not fit");
  Tressel::PointCloudBuilder far({{1, 2, 3}, {1e12, 0, 0}});
  expectError(*far.build({{0, 1}}), "coordinate 1000000000000 of point 1 does not fit");
  Tressel::PointCloudBuilder angle({{1, 2, 3}});
  angle.addField("ScanAngle", std::vector<float>{500.0f});
  expectError(*angle.build({{0}}), "ScanAngle 500 of point 0 does not fit point format 6");
  Tressel::PointCloudBuilder flag({{1, 2, 3}});
  flag.addField("Synthetic", std::vector<unsigned char>{2});
  expectError(*flag.build({{0}}), "Synthetic 2 of point 0 does not fit point format 6");
  // Values go out a kind at a time over runs of points: the first point that does not fit
  // still names the error, though a value written before the scan angle fails at a later point.
  Tressel::PointCloudBuilder both({{1, 2, 3}, {1, 2, 3}, {1, 2, 3}});
  both.addField("ScanAngle", std::vector<float>{0.0f, 500.0f, 0.0f});
  both.addField("Synthetic", std::vector<unsigned char>{0, 0, 2});
  expectError(*both.build({{0, 1, 2}}), "ScanAngle 500 of point 1 does not fit point format 6");
  Tressel::PointCloudBuilder wrongType({{1, 2, 3}});
  wrongType.addField("Intensity", std::vector<float>{2});
  expectError(*wrongType.build({{0}}), "field \"Intensity\" holds float32");
  Tressel::PointCloudBuilder planes({{1, 2, 3}});
  planes.addField("Plane", std::vector<Vantor::PhysicalSpace::bivector>{{0, 0, 1}});
  expectError(*planes.build({{0}}), "field \"Plane\" of bivector has no LAS representation");
  // Vectors go out as float32 components named after the field, which must be free.
  using Vantor::PhysicalSpace::vector;
  Tressel::PointCloudBuilder huge({{1, 2, 3}});
  huge.addField("NormalVector", std::vector<vector>{{0, 1e300, 0}});
  expectError(*huge.build({{0}}),
              "NormalVector 1.0000000000000001e+300 of point 0 does not fit float32");
  Tressel::PointCloudBuilder clash({{1, 2, 3}});
  clash.addField("Gradient", std::vector<vector>{{0, 0, 1}});
  clash.addField("GradientZ", std::vector<float>{1});
  expectError(*clash.build({{0}}), "field \"Gradient\" cannot be written as extra-bytes dimension "
                                   "\"GradientZ\": another field has that name");
}

// Records are laid out by blocks of points on all threads (LAZ: each chunk's in a buffer of its
// thread, then coded): the file and the first value that does not fit are the same for any
// thread count, blocks and chunks crossing fragments.
TEST_F(LasFiles, RecordsLaidOutOnManyThreadsMakeTheFileOfOne) {
  const std::size_t n = 200003;
  std::vector<point> xyz(n);
  std::vector<float> angles(n);
  for (std::size_t i = 0; i < n; ++i) {
    xyz[i] = {double(i % 1000) * 0.37, double(i / 1000) * 0.53, double((i * 7919) % 613) * 0.01};
    angles[i] = float(i % 61) - 30.0f;
  }
  // Three fragments of uneven sizes, so that blocks of points span fragments.
  std::vector<std::vector<std::size_t>> fragments(3);
  for (std::size_t i = 0; i < n; ++i)
    fragments[i < 70001 ? 0 : i < 70002 ? 1 : 2].push_back(i);
  const auto written = [&](const std::vector<float>& a, int threads, const std::string& name) {
    Tressel::PointCloudBuilder builder(xyz);
    builder.addField("ScanAngle", a);
    const int before = omp_get_max_threads();
    omp_set_num_threads(threads);
    std::string error;
    try {
      Quorvel::Las::write(file(name), *builder.build(fragments));
    } catch (const Quorvel::Las::Error& e) {
      error = e.what();
    }
    omp_set_num_threads(before);
    return error;
  };
  // LAZ codes chunks as their records are laid out, LAS streams them a block per thread at a time.
  for (const std::string ext : {".laz", ".las"}) {
    ASSERT_EQ(written(angles, 1, "one" + ext), "");
    for (int threads : {2, 3}) {
      ASSERT_EQ(written(angles, threads, "many" + ext), "");
      EXPECT_TRUE(bytesOf(file("one" + ext)) == bytesOf(file("many" + ext))) << threads << ext;
    }
  }
  const auto back = Quorvel::Las::read(file("many.laz"));
  EXPECT_EQ(back.info.header.pointCount, n);
  // The bounds every block counted, joined.
  EXPECT_EQ(back.info.header.min, (std::array<double, 3>{0, 0, 0}));
  EXPECT_EQ(back.info.header.max, (std::array<double, 3>{999 * 0.37, 200 * 0.53, 612 * 0.01}));
  const auto read = values<float>(*back.grid, "ScanAngle"); // in steps of 0.006 degrees
  for (std::size_t i = 0; i < n; i += 997)
    EXPECT_NEAR(read[i], angles[i], 0.003) << i;

  // Read back by blocks of points on any number of threads: the same arrays.
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  const auto alone = contents(*Quorvel::Las::read(file("one.las")).grid);
  omp_set_num_threads(3);
  EXPECT_TRUE(contents(*Quorvel::Las::read(file("one.las")).grid) == alone);
  EXPECT_TRUE(contents(*back.grid) == alone);
  omp_set_num_threads(threads);

  angles[70001] = angles[190000] = 900.0f; // a block's first point, and a later block's
  for (const std::string ext : {".laz", ".las"})
    for (int threads : {1, 2, 3})
      EXPECT_NE(
          written(angles, threads, "bad" + ext).find("ScanAngle 900 of point 70001 does not fit"),
          std::string::npos)
          << threads << ext;
}

struct CountingProgress : Basalt::LoaderProgress {
  void progress(double fraction, const std::string& what) override {
    EXPECT_GE(fraction, last);
    last = fraction;
    ++calls[what];
  }
  double last = 0;
  std::map<std::string, int> calls;
};

TEST_F(LasFiles, ProgressAndSummary) {
  const std::string path = (SampleData / "sample_c.las").string();
  auto progress = std::make_shared<CountingProgress>();
  const auto cloud = Quorvel::Las::read(path, 0, progress);
  EXPECT_EQ(progress->last, 1.0);
  EXPECT_GE(progress->calls["reading"], 1);
  EXPECT_LE(progress->calls["reading"], 101);
  progress->last = 0;
  Quorvel::Las::write(file("copy.las"), *cloud.grid, {}, progress);
  EXPECT_EQ(progress->last, 1.0);
  EXPECT_LE(progress->calls["writing"], 101);
  // Hundreds of small tiles still give a report per percent at most.
  progress->last = 0;
  progress->calls.clear();
  const auto tiles = Quorvel::Las::read(path, 50, progress);
  ASSERT_GT(tiles.grid->CartesianPositions()->nFragments(), 101u);
  EXPECT_EQ(progress->last, 1.0);
  EXPECT_LE(progress->calls["reading"], 101);
  progress->last = 0;
  Quorvel::Las::write(file("tiles.las"), *tiles.grid, {}, progress);
  EXPECT_EQ(progress->last, 1.0);
  EXPECT_LE(progress->calls["writing"], 101);

  const auto summary = Quorvel::Las::summarize(path);
  const auto xyz = values<point>(*cloud.grid, "Positions");
  EXPECT_EQ(summary.pointCount, xyz.size());
  for (int a = 0; a < 3; ++a) {
    double lo = xyz[0][a], hi = xyz[0][a];
    for (const point& p : xyz) {
      lo = std::min(lo, p[a]);
      hi = std::max(hi, p[a]);
    }
    EXPECT_EQ(summary.min[static_cast<std::size_t>(a)], lo);
    EXPECT_EQ(summary.max[static_cast<std::size_t>(a)], hi);
  }
  std::array<std::uint64_t, 256> classes{};
  for (unsigned char c : values<unsigned char>(*cloud.grid, "Classification"))
    ++classes[c];
  EXPECT_EQ(summary.classCounts, classes);
  EXPECT_EQ(summary.classCounts[31], 339u);
  const auto fields = contents(*cloud.grid);
  ASSERT_EQ(summary.fields.size(), fields.size());
  for (const auto& [name, type] : summary.fields)
    EXPECT_EQ(fields.at(name).first, type) << name;
}

} // namespace
