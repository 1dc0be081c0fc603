// SPDX-License-Identifier: BSD-3-Clause
// Tests of COPC files: written from sample files and from a synthetic cloud of negative
// coordinates and many copies of one point, then parsed here with plain byte reads (the info
// record at byte 375, the hierarchy EVLR, the entries) that share no code with io/; node cubes
// hold their points, nodes are the chunks, records are those of a plain write; the hierarchy
// checks refuse damaged files naming the file; the nodes a box meets against brute force.
#include "io/las.hpp"

#include "io/detail/copc.hpp"
#include "support/scratch_directory.hpp"
#include "tressel/point_cloud.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace {

using namespace Quorvel;
namespace fs = std::filesystem;
using Vantor::PhysicalSpace::point;

const fs::path Sample = QUORVEL_SAMPLE_DATA;

std::vector<std::uint8_t> bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
template <class T>
T at(const std::vector<std::uint8_t>& b, std::size_t pos) {
  T v;
  std::memcpy(&v, b.data() + pos, sizeof v);
  return v;
}
std::string name(const std::vector<std::uint8_t>& b, std::size_t pos) {
  return {reinterpret_cast<const char*>(b.data() + pos),
          strnlen(reinterpret_cast<const char*>(b.data() + pos), 16)};
}

// One hierarchy entry, as stored.
struct Entry {
  std::int32_t level, x, y, z;
  std::uint64_t offset;
  std::int32_t bytes, points;
  std::size_t at; // its byte in the file
};

// What a COPC file says of itself, read straight from its bytes.
struct Layout {
  std::uint32_t pointOffset = 0;
  std::uint64_t pointCount = 0;
  double center[3], halfsize = 0, gps[2];
  std::uint64_t rootOffset = 0, rootSize = 0;
  std::vector<std::string> vlrNames, evlrNames; // "user id/record id"
  std::vector<Entry> entries;                   // of every page, children pages followed
};

Layout layoutOf(const std::vector<std::uint8_t>& b) {
  Layout l;
  l.pointOffset = at<std::uint32_t>(b, 96);
  l.pointCount = at<std::uint64_t>(b, 247);
  for (std::size_t pos = at<std::uint16_t>(b, 94), k = 0; k < at<std::uint32_t>(b, 100); ++k) {
    l.vlrNames.push_back(name(b, pos + 2) + "/" + std::to_string(at<std::uint16_t>(b, pos + 18)));
    pos += 54 + at<std::uint16_t>(b, pos + 20);
  }
  for (std::size_t pos = at<std::uint64_t>(b, 235), k = 0; k < at<std::uint32_t>(b, 243); ++k) {
    l.evlrNames.push_back(name(b, pos + 2) + "/" + std::to_string(at<std::uint16_t>(b, pos + 18)));
    pos += 60 + at<std::uint64_t>(b, pos + 20);
  }
  if (l.vlrNames.empty() || l.vlrNames[0] != "copc/1")
    return l;
  for (int a = 0; a < 3; ++a)
    l.center[a] = at<double>(b, 429 + 8 * a);
  l.halfsize = at<double>(b, 429 + 24);
  l.rootOffset = at<std::uint64_t>(b, 429 + 40);
  l.rootSize = at<std::uint64_t>(b, 429 + 48);
  l.gps[0] = at<double>(b, 429 + 56);
  l.gps[1] = at<double>(b, 429 + 64);
  std::vector<std::pair<std::uint64_t, std::uint64_t>> pages{{l.rootOffset, l.rootSize}};
  while (!pages.empty()) {
    const auto [offset, size] = pages.back();
    pages.pop_back();
    for (std::size_t e = offset; e < offset + size; e += 32) {
      Entry n{at<std::int32_t>(b, e),       at<std::int32_t>(b, e + 4),
              at<std::int32_t>(b, e + 8),   at<std::int32_t>(b, e + 12),
              at<std::uint64_t>(b, e + 16), at<std::int32_t>(b, e + 24),
              at<std::int32_t>(b, e + 28),  e};
      if (n.points == -1)
        pages.emplace_back(n.offset, static_cast<std::uint64_t>(n.bytes));
      else
        l.entries.push_back(n);
    }
  }
  return l;
}

// The point records of an uncompressed LAS file, sorted: a multiset.
std::vector<std::string> sortedRecords(const std::string& path) {
  const auto b = bytesOf(path);
  const std::size_t offset = at<std::uint32_t>(b, 96), length = at<std::uint16_t>(b, 105);
  std::vector<std::string> out;
  for (std::size_t pos = offset; pos + length <= b.size(); pos += length)
    out.emplace_back(reinterpret_cast<const char*>(b.data() + pos), length);
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<point> positionsOf(const Tressel::Grid& grid) {
  return Tressel::readField<point>(*grid(Tressel::StandardCartesianChart3D, "Positions"));
}

Copc::Fetch fetchFrom(const std::vector<std::uint8_t>& bytes) {
  return [&bytes](std::uint64_t offset, std::uint64_t size) {
    return std::vector<std::uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                                     bytes.begin() + static_cast<std::ptrdiff_t>(offset + size));
  };
}

// 310,000 points: a cloud at negative coordinates, a tight cluster, and 120,000 copies of one.
Basalt::StrongPtr<Tressel::Grid> syntheticCloud() {
  std::mt19937_64 random(11);
  std::uniform_real_distribution<double> x(-5000.0, -4000.0), y(-300.0, 200.0), z(-50.0, 10.0);
  std::normal_distribution<double> cluster(0.0, 0.05);
  std::vector<point> points;
  for (int i = 0; i < 150000; ++i)
    points.push_back({x(random), y(random), z(random)});
  for (int i = 0; i < 40000; ++i)
    points.push_back({-4500 + cluster(random), -10 + cluster(random), -20 + cluster(random)});
  points.insert(points.end(), 120000, point{-4321.5, 12.25, -7.125});
  std::vector<double> times(points.size());
  std::vector<unsigned short> intensity(points.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    times[i] = 1e5 + static_cast<double>(i % 9973);
    intensity[i] = static_cast<unsigned short>(i % 65521);
  }
  Tressel::PointCloudBuilder builder(points);
  builder.addField("GpsTime", times);
  builder.addField("Intensity", intensity);
  return builder.build(Tressel::sequentialPartition(points.size(), 0));
}

class CopcFiles : public ScratchDirectory {
protected:
  // Writes the grid as COPC and checks the layout against the file's bytes and its points read
  // back; returns the layout.
  Layout expectCopc(const Tressel::Grid& grid, const std::string& what) {
    const std::string path = file("out.copc.laz");
    Las::write(path, grid);
    const auto bytes = bytesOf(path);
    const Layout l = layoutOf(bytes);
    EXPECT_EQ(bytes[25], 4) << what;
    EXPECT_GE(bytes[104] & 0x3F, 6) << what;
    EXPECT_LE(bytes[104] & 0x3F, 8) << what;
    EXPECT_EQ(at<std::uint16_t>(bytes, 375 + 20), 160u) << what; // data of 160 bytes at 429
    EXPECT_EQ(l.vlrNames.front(), "copc/1") << what;
    EXPECT_EQ(l.evlrNames.front(), "copc/1000") << what;
    // The root page is the hierarchy EVLR's data, right after its 60-byte header.
    EXPECT_EQ(l.rootOffset, at<std::uint64_t>(bytes, 235) + 60) << what;
    expectNodesAreChunks(l, path, what);
    return l;
  }

  // Nodes by offset follow one another from the point data on (each one chunk), their counts sum
  // to the header's, and each node's cube holds its points (the file read in chunk order).
  void expectNodesAreChunks(Layout l, const std::string& path, const std::string& what) {
    std::sort(l.entries.begin(), l.entries.end(),
              [](const Entry& a, const Entry& b) { return a.offset < b.offset; });
    const auto read = Las::read(path);
    const auto xyz = positionsOf(*read.grid);
    std::uint64_t next = l.pointOffset + 8, total = 0;
    for (const Entry& e : l.entries) {
      if (e.points == 0)
        continue;
      EXPECT_EQ(e.offset, next) << what << ": node " << e.level << "-" << e.x << "-" << e.y;
      next = e.offset + static_cast<std::uint64_t>(e.bytes);
      const double side = 2 * l.halfsize / static_cast<double>(1 << e.level);
      const int key[3] = {e.x, e.y, e.z};
      const double slack = 1e-9 * l.halfsize;
      for (std::uint64_t i = total; i < total + static_cast<std::uint64_t>(e.points); ++i)
        for (int a = 0; a < 3; ++a) {
          const double lo = l.center[a] - l.halfsize + side * key[a];
          ASSERT_GE(xyz[i][a], lo - slack) << what << ": point " << i << " axis " << a;
          ASSERT_LE(xyz[i][a], lo + side + slack) << what << ": point " << i << " axis " << a;
        }
      total += static_cast<std::uint64_t>(e.points);
    }
    EXPECT_EQ(total, l.pointCount) << what;
    EXPECT_EQ(total, read.info.header.pointCount) << what;
  }

  // Reading the COPC file and writing it plainly gives the records of the grid written plainly.
  void expectSameRecords(const Tressel::Grid& plain, const std::string& what) {
    Las::write(file("plain.las"), plain);
    Las::write(file("back.las"), *Las::read(file("out.copc.laz")).grid);
    EXPECT_TRUE(sortedRecords(file("plain.las")) == sortedRecords(file("back.las"))) << what;
  }
};

TEST_F(CopcFiles, SampleFilesBecomeOctreesOfTheirRecords) {
  // Formats 6 with EVLRs, 6 with a WKT coordinate system, and 3 (moved to 7, said once).
  for (const char* name : {"1_4_w_evlr.decoded.las", "nebraska_wkt_geotiff.las", "sample_c.las"}) {
    const auto read = Las::read((Sample / name).string());
    std::vector<std::string> warnings;
    Las::WriteOptions options;
    options.warn = [&](const std::string& w) { warnings.push_back(w); };
    Las::write(file("warned.copc.laz"), *read.grid, options);
    const Layout l = expectCopc(*read.grid, name);
    Las::FileInfo info = read.info;
    if (info.header.pointFormat < 6) {
      ASSERT_EQ(warnings.size(), 1u) << name;
      EXPECT_NE(warnings[0].find("point format 7 instead of LAS 1.2 point format 3 (for COPC)"),
                std::string::npos)
          << warnings[0];
      info.header.pointFormat = 7; // as the COPC writer moves it
      info.header.versionMinor = 4;
    } else
      EXPECT_TRUE(warnings.empty()) << name;
    auto plain = Las::read((Sample / name).string()).grid;
    Las::setFileInfo(*plain, info);
    expectSameRecords(*plain, name);
    // The grid's own records follow the COPC ones: its EVLRs and its coordinate system.
    EXPECT_EQ(l.evlrNames.size(), read.info.evlrs.size() + 1) << name;
    EXPECT_EQ(l.vlrNames.size(), read.info.vlrs.size() + 2) << name; // info and "laszip encoded"
  }
}

TEST_F(CopcFiles, ManyCopiesAndNegativeCoordinatesKeepEveryPointOnce) {
  const auto grid = syntheticCloud();
  const Layout l = expectCopc(*grid, "synthetic");
  expectSameRecords(*grid, "synthetic");
  EXPECT_GT(l.entries.size(), 8u); // the points do not fit one node
  // No node above the deepest level holds more than 100,000 points; the copies, one kept per
  // level on the way, end together in one leaf at level 14.
  std::int32_t deepest = 0;
  for (const Entry& e : l.entries) {
    if (e.level < 14)
      EXPECT_LE(e.points, 100000) << e.level << "-" << e.x << "-" << e.y << "-" << e.z;
    else
      deepest = std::max(deepest, e.points);
  }
  EXPECT_GE(deepest, 120000 - 14);
  EXPECT_EQ(l.gps[0], 1e5);
  EXPECT_EQ(l.gps[1], 1e5 + 9972);

  // Read back and written as plain LAZ and LAS: no COPC record is carried over.
  const auto read = Las::read(file("out.copc.laz"));
  Las::write(file("plain.laz"), *read.grid);
  for (const auto& names : {layoutOf(bytesOf(file("plain.laz"))).vlrNames,
                            layoutOf(bytesOf(file("plain.laz"))).evlrNames})
    for (const std::string& n : names)
      EXPECT_EQ(n.rfind("copc/", 0), std::string::npos) << n;
  // ... while a summary lists the records as the file stores them.
  const auto summary = Las::summarize(file("out.copc.laz"));
  EXPECT_EQ(summary.vlrs.front().userId, "copc");
  EXPECT_EQ(summary.evlrs.front().recordId, 1000);
}

TEST_F(CopcFiles, EmptyGridsAndWaveformsAndOtherFiles) {
  Tressel::PointCloudBuilder none(std::vector<point>{});
  Las::write(file("none.copc.laz"), *none.build(Tressel::sequentialPartition(0, 0)));
  const auto bytes = bytesOf(file("none.copc.laz"));
  EXPECT_EQ(Las::read(file("none.copc.laz")).info.header.pointCount, 0u);
  const auto h = Copc::copcHierarchy(file("none.copc.laz"), bytes.size(), fetchFrom(bytes));
  ASSERT_TRUE(h);
  EXPECT_TRUE(h->nodes.empty());

  const auto wave = Las::read((Sample / "wave9.las").string());
  try {
    Las::write(file("wave.COPC.LAZ"), *wave.grid);
    FAIL() << "format 9 written as COPC";
  } catch (const Las::Error& e) {
    EXPECT_EQ(std::string(e.what()), file("wave.COPC.LAZ") +
                                         ": point format 9 (with waveforms) cannot be written as "
                                         "COPC, which holds point formats 6 to 8");
  }
  // A plain LAZ file is not COPC.
  const auto laz = bytesOf((Sample / "1_4_w_evlr.laz").string());
  EXPECT_FALSE(Copc::copcHierarchy("x.laz", laz.size(), fetchFrom(laz)));
}

TEST_F(CopcFiles, DamagedHierarchiesAreRefusedNamingTheFile) {
  Las::write(file("good.copc.laz"), *syntheticCloud());
  const auto good = bytesOf(file("good.copc.laz"));
  const Layout l = layoutOf(good);
  ASSERT_GE(l.entries.size(), 2u);
  const std::size_t e0 = l.entries[0].at, e1 = l.entries[1].at;
  auto damaged = [&](const std::string& text, auto change) {
    auto bytes = good;
    change(bytes);
    const std::string path = file("bad.copc.laz");
    try {
      Copc::copcHierarchy(path, bytes.size(), fetchFrom(bytes));
      ADD_FAILURE() << "accepted: " << text;
    } catch (const Las::Error& e) {
      EXPECT_EQ(std::string(e.what()).rfind(path + ": COPC hierarchy: ", 0), 0u) << e.what();
      EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
    }
  };
  auto put = [](std::vector<std::uint8_t>& b, std::size_t pos, auto v) {
    std::memcpy(b.data() + pos, &v, sizeof v);
  };
  damaged("lies outside the point data",
          [&](auto& b) { put(b, e0 + 16, std::uint64_t(b.size())); });
  damaged("reached twice (the pages make a cycle)", [&](auto& b) {
    put(b, e1 + 16, l.rootOffset);
    put(b, e1 + 24, static_cast<std::int32_t>(l.rootSize));
    put(b, e1 + 28, std::int32_t(-1));
  });
  damaged("points, the header says " + std::to_string(l.pointCount),
          [&](auto& b) { put(b, e0 + 28, l.entries[0].points + 1); });
  damaged("overlap at byte", [&](auto& b) { put(b, e1 + 16, l.entries[0].offset + 1); });
  damaged("ends past the file", [&](auto& b) { put(b, 429 + 48, std::uint64_t(b.size())); });
  damaged("lies outside the octree", [&](auto& b) { put(b, e1 + 4, std::int32_t(1 << 20)); });
  // The good file's hierarchy is the layout parsed here.
  const auto h = Copc::copcHierarchy(file("good.copc.laz"), good.size(), fetchFrom(good));
  ASSERT_TRUE(h);
  EXPECT_EQ(h->nodes.size(), l.entries.size());
  EXPECT_EQ(h->info.halfsize, l.halfsize);
}

TEST_F(CopcFiles, BoxesMeetTheNodesThatHoldTheirPoints) {
  Las::write(file("out.copc.laz"), *syntheticCloud());
  const auto bytes = bytesOf(file("out.copc.laz"));
  const auto h = Copc::copcHierarchy(file("out.copc.laz"), bytes.size(), fetchFrom(bytes));
  ASSERT_TRUE(h);
  const Layout l = layoutOf(bytes);
  const auto read = Las::read(file("out.copc.laz"));
  const auto xyz = positionsOf(*read.grid);
  std::mt19937_64 random(5);
  std::uniform_real_distribution<double> x(-5100.0, -3900.0), y(-400.0, 300.0), size(0.0, 300.0);
  for (int trial = 0; trial < 20; ++trial) {
    Copc::Box box;
    box.min = {x(random), y(random), -std::numeric_limits<double>::infinity()};
    box.max = {box.min[0] + size(random), box.min[1] + size(random) / 3, box.min[2]};
    box.max[2] = std::numeric_limits<double>::infinity();
    if (trial % 2) { // a 3-D box
      box.min[2] = -30;
      box.max[2] = -5;
    }
    const auto met = Copc::nodesMeeting(*h, box);
    // Brute force: the nodes whose cube, computed from the bytes here, meets the box.
    std::size_t expected = 0;
    for (const Entry& e : l.entries) {
      const double side = 2 * l.halfsize / static_cast<double>(1 << e.level);
      const int key[3] = {e.x, e.y, e.z};
      bool meets = e.points > 0;
      for (int a = 0; a < 3; ++a) {
        const double lo = l.center[a] - l.halfsize + side * key[a];
        meets = meets && lo <= box.max[a] && box.min[a] <= lo + side;
      }
      expected += meets;
    }
    EXPECT_EQ(met.size(), expected) << trial;
    // Every point inside the box lies in the chunk of a node met (points in chunk order).
    std::uint64_t first = 0;
    for (const Copc::Node& n : h->nodes) {
      const bool chosen = std::any_of(met.begin(), met.end(),
                                      [&](const Copc::Node& m) { return m.offset == n.offset; });
      for (std::uint64_t i = first; i < first + n.points && !chosen; ++i) {
        bool inside = true;
        for (int a = 0; a < 3; ++a)
          inside = inside && xyz[i][a] >= box.min[a] && xyz[i][a] <= box.max[a];
        ASSERT_FALSE(inside) << "trial " << trial << ": point " << i << " in a node not met";
      }
      first += n.points;
    }
  }
}

} // namespace
