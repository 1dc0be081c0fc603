// SPDX-License-Identifier: BSD-3-Clause
// Tests of the LAS header checks: every class of hostile header gives its own message, all
// problems of a header come in one error naming the file, and nothing is read outside the file.
// The files are built here byte by byte, independently of the writer.
#include "io/las.hpp"
#include "tressel/point_cloud.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

namespace {

using LasHeaders = ScratchDirectory;

template <class T>
void set(std::vector<std::uint8_t>& b, std::size_t at, T value) {
  std::memcpy(b.data() + at, &value, sizeof(T));
}

// A valid LAS 1.4 file of format 6 with three points: one VLR (GeoKeys, 16 bytes), optionally
// an extra-bytes VLR with `extra` bytes of descriptors and per-point room for a float32, `pad`
// bytes no descriptor covers (point i holding 16 * i + k in its byte k), then one EVLR of 8 bytes.
struct Synthetic {
  std::vector<std::uint8_t> bytes;
  std::size_t vlrStart = 375, pointStart = 0, evlrStart = 0;

  explicit Synthetic(std::size_t extra = 0, std::size_t pad = 0) {
    const std::size_t record = 30 + (extra ? 4 : 0) + pad;
    bytes.assign(375, 0);
    std::memcpy(bytes.data(), "LASF", 4);
    bytes[24] = 1;
    bytes[25] = 4;
    set<std::uint16_t>(bytes, 94, 375);
    set<std::uint32_t>(bytes, 100, extra ? 2 : 1);
    bytes[104] = 6;
    set<std::uint16_t>(bytes, 105, static_cast<std::uint16_t>(record));
    for (std::size_t k = 0; k < 3; ++k)
      set<double>(bytes, 131 + 8 * k, 0.01);
    set<std::uint64_t>(bytes, 247, 3);
    addVlr("LASF_Projection", 34735, std::vector<std::uint8_t>(16, 1), false);
    if (extra) {
      std::vector<std::uint8_t> descriptor(extra, 0);
      descriptor[2] = 9; // float32
      std::memcpy(descriptor.data() + 4, "Amplitude", 9);
      addVlr("LASF_Spec", 4, descriptor, false);
    }
    pointStart = bytes.size();
    set<std::uint32_t>(bytes, 96, static_cast<std::uint32_t>(pointStart));
    for (std::int32_t i = 0; i < 3; ++i) {
      std::vector<std::uint8_t> r(record, 0);
      const std::int32_t xyz[3] = {100 * i, 200 * i, 300 * i};
      std::memcpy(r.data(), xyz, 12);
      r[14] = 0x11; // return 1 of 1
      r[16] = 2;
      for (std::size_t k = 0; k < pad; ++k)
        r[record - pad + k] = static_cast<std::uint8_t>(16 * i + static_cast<std::int32_t>(k));
      bytes.insert(bytes.end(), r.begin(), r.end());
    }
    evlrStart = bytes.size();
    set<std::uint64_t>(bytes, 235, evlrStart);
    set<std::uint32_t>(bytes, 243, 1);
    addVlr("Quorvel", 1, std::vector<std::uint8_t>(8, 7), true);
  }

  void addVlr(const char* user, std::uint16_t id, const std::vector<std::uint8_t>& data,
              bool extended) {
    std::vector<std::uint8_t> h(extended ? 60 : 54, 0);
    std::memcpy(h.data() + 2, user, std::strlen(user));
    std::memcpy(h.data() + 18, &id, 2);
    if (extended)
      set<std::uint64_t>(h, 20, data.size());
    else
      set<std::uint16_t>(h, 20, static_cast<std::uint16_t>(data.size()));
    bytes.insert(bytes.end(), h.begin(), h.end());
    bytes.insert(bytes.end(), data.begin(), data.end());
  }
};

class HostileHeaders : public LasHeaders {
protected:
  std::string save(const std::vector<std::uint8_t>& bytes) {
    // Built piece by piece: GCC 12 warns falsely (-Wrestrict) on "f" + std::to_string(...).
    std::string name = std::to_string(count++);
    name.insert(0, 1, 'f');
    name += ".las";
    const std::string path = file(name);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return path;
  }
  // The error of reading (and of summarizing, which must agree), or "no error".
  std::string message(const std::vector<std::uint8_t>& bytes) {
    const std::string path = save(bytes);
    std::string read = "no error", summary = "no error";
    try {
      Quorvel::Las::read(path);
    } catch (const Quorvel::Las::Error& e) {
      read = e.what();
    }
    try {
      Quorvel::Las::summarize(path);
    } catch (const Quorvel::Las::Error& e) {
      summary = e.what();
    }
    EXPECT_EQ(read, summary);
    const std::string prefix = path + ": ";
    return read.rfind(prefix, 0) == 0 ? read.substr(prefix.size()) : "(no file name) " + read;
  }
  // The warnings that read() and summarize() give to their callbacks (the same from both), with
  // nothing written to standard error.
  std::vector<std::string> warnings(const std::vector<std::uint8_t>& bytes) {
    const std::string path = save(bytes);
    std::vector<std::string> read, summary;
    testing::internal::CaptureStderr();
    Quorvel::Las::read(path, 0, {}, {}, [&](const std::string& text) { read.push_back(text); });
    Quorvel::Las::summarize(path, [&](const std::string& text) { summary.push_back(text); });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(read, summary);
    return read;
  }
  int count = 0;
};

TEST_F(HostileHeaders, TheSyntheticFileIsValid) {
  const Synthetic s(192);
  const auto back = Quorvel::Las::read(save(s.bytes));
  ASSERT_EQ(back.info.vlrs.size(), 2u);
  ASSERT_EQ(back.info.evlrs.size(), 1u);
  EXPECT_EQ(back.info.evlrs[0].data, std::vector<std::uint8_t>(8, 7));
  ASSERT_EQ(back.info.extraBytes.size(), 1u);
  EXPECT_EQ(back.info.extraBytes[0].name, "Amplitude");
  EXPECT_EQ(back.grid->CartesianPositions()->nFragments(), 1u);
}

TEST_F(HostileHeaders, ExtraBytesRecordsAreKeptOrMadeAnew) {
  // Descriptors split over two records (as some writers do): both read, both written back as
  // they were while the grid keeps the same dimensions.
  Synthetic s(192);
  std::vector<std::uint8_t> second(192, 0);
  second[2] = 1; // uint8
  std::memcpy(second.data() + 4, "Confidence", 10);
  s.bytes.insert(s.bytes.begin() + static_cast<std::ptrdiff_t>(s.pointStart), 54 + 192, 0);
  std::memcpy(s.bytes.data() + s.pointStart + 2, "LASF_Spec", 9);
  set<std::uint16_t>(s.bytes, s.pointStart + 18, 4);
  set<std::uint16_t>(s.bytes, s.pointStart + 20, 192);
  std::memcpy(s.bytes.data() + s.pointStart + 54, second.data(), 192);
  set<std::uint32_t>(s.bytes, 100, 3);
  set<std::uint32_t>(s.bytes, 96, static_cast<std::uint32_t>(s.pointStart + 54 + 192));
  set<std::uint64_t>(s.bytes, 235, s.evlrStart + 54 + 192);
  // Records of 35 bytes now: move each point's bytes into its place.
  std::vector<std::uint8_t> points;
  const std::size_t start = s.pointStart + 54 + 192;
  for (std::size_t i = 0; i < 3; ++i) {
    points.insert(points.end(), s.bytes.begin() + static_cast<std::ptrdiff_t>(start + 34 * i),
                  s.bytes.begin() + static_cast<std::ptrdiff_t>(start + 34 * i + 34));
    points.push_back(static_cast<std::uint8_t>(10 + i));
  }
  s.bytes.erase(s.bytes.begin() + static_cast<std::ptrdiff_t>(start),
                s.bytes.begin() + static_cast<std::ptrdiff_t>(start + 3 * 34));
  s.bytes.insert(s.bytes.begin() + static_cast<std::ptrdiff_t>(start), points.begin(),
                 points.end());
  set<std::uint16_t>(s.bytes, 105, 35);
  set<std::uint64_t>(s.bytes, 235, start + 3 * 35);

  const auto cloud = Quorvel::Las::read(save(s.bytes));
  ASSERT_EQ(cloud.info.extraBytes.size(), 2u);
  EXPECT_EQ(Tressel::readField<unsigned char>(
                *(*cloud.grid)(Tressel::StandardCartesianChart3D, "Confidence")),
            (std::vector<unsigned char>{10, 11, 12}));
  Quorvel::Las::write(file("same.las"), *cloud.grid);
  std::ifstream in(file("same.las"), std::ios::binary);
  const std::vector<std::uint8_t> copy((std::istreambuf_iterator<char>(in)),
                                       std::istreambuf_iterator<char>());
  // Records and points as they were (the header gains the bounds and counts per return).
  ASSERT_EQ(copy.size(), s.bytes.size());
  EXPECT_TRUE(std::equal(copy.begin() + 375, copy.end(), s.bytes.begin() + 375));

  // A new field: one record of all three descriptors replaces the two.
  auto grid = Quorvel::Las::read(save(s.bytes)).grid;
  auto rep = grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto positions = grid->CartesianPositions();
  auto planarity =
      rep->makeField(rep->makeFieldID("Planarity"), positions->getFragmentIDCollection(),
                     Tressel::MemArray<1, float>(Tressel::MultiIndex<1>(3)));
  positions->iterate([&](const auto& id, const auto&) {
    planarity->setPersistentData(std::make_shared<Tressel::MemArray<1, float>>(
                                     Tressel::MultiIndex<1>(3), std::vector<float>{1, 2, 3}),
                                 id);
    return true;
  });
  Quorvel::Las::write(file("more.las"), *grid);
  const auto more = Quorvel::Las::read(file("more.las"));
  ASSERT_EQ(more.info.vlrs.size(), 2u);
  EXPECT_EQ(more.info.vlrs[1].description, "Extra bytes");
  ASSERT_EQ(more.info.extraBytes.size(), 3u);
  EXPECT_EQ(more.info.extraBytes[0].descriptor, cloud.info.extraBytes[0].descriptor);
  EXPECT_EQ(more.info.extraBytes[2].name, "Planarity");
  EXPECT_EQ(more.info.header.recordLength, 39);
}

TEST_F(HostileHeaders, BytesNoDescriptorCoversAreKept) {
  auto bytesOf = [](const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<std::uint8_t>((std::istreambuf_iterator<char>(in)),
                                     std::istreambuf_iterator<char>());
  };
  // Two bytes of padding: one uint16 field; three: a uint16 and a uint8, named by offset.
  const Synthetic two(0, 2), three(192, 3);
  const auto a = Quorvel::Las::read(save(two.bytes));
  EXPECT_EQ(Tressel::readField<unsigned short>(
                *(*a.grid)(Tressel::StandardCartesianChart3D, "UndescribedBytes")),
            (std::vector<unsigned short>{0x100, 0x1110, 0x2120}));
  const auto b = Quorvel::Las::read(save(three.bytes));
  EXPECT_EQ(Tressel::readField<unsigned char>(
                *(*b.grid)(Tressel::StandardCartesianChart3D, "UndescribedBytes_2")),
            (std::vector<unsigned char>{2, 18, 34}));
  // The longest records a header can declare make as few fields as whole numbers allow, with
  // unique names (a fuzzed header of 65,535-byte records once made 65,000 fields).
  const Synthetic wide(0, 65505);
  const auto c = Quorvel::Las::read(save(wide.bytes));
  const auto fields =
      c.grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D)->snapshot().size();
  EXPECT_LT(fields, 20 + 65505 / 8 + 3 * (65505 / 255 + 1));
  EXPECT_NE((*c.grid)(Tressel::StandardCartesianChart3D, "UndescribedBytes_extra2_248"), nullptr);
  // Written back as they were: no descriptor added, every record byte kept.
  for (const auto* s : {&two, &three, &wide}) {
    Quorvel::Las::write(file("same.las"), *Quorvel::Las::read(save(s->bytes)).grid);
    const auto copy = bytesOf(file("same.las"));
    ASSERT_EQ(copy.size(), s->bytes.size());
    EXPECT_TRUE(std::equal(copy.begin() + 375, copy.end(), s->bytes.begin() + 375));
  }
  // With a new field the record is described anew, the padding by a descriptor of plain bytes.
  auto grid = Quorvel::Las::read(save(three.bytes)).grid;
  auto rep = grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  auto positions = grid->CartesianPositions();
  auto flag = rep->makeField(rep->makeFieldID("Flag"), positions->getFragmentIDCollection(),
                             Tressel::MemArray<1, signed char>(Tressel::MultiIndex<1>(3)));
  positions->iterate([&](const auto& id, const auto&) {
    flag->setPersistentData(std::make_shared<Tressel::MemArray<1, signed char>>(
                                Tressel::MultiIndex<1>(3), std::vector<signed char>{-1, 0, 1}),
                            id);
    return true;
  });
  Quorvel::Las::write(file("more.las"), *grid);
  const auto more = Quorvel::Las::read(file("more.las"));
  ASSERT_EQ(more.info.extraBytes.size(), 3u);
  EXPECT_TRUE(more.info.extraBytes[1].described);
  EXPECT_EQ(more.info.extraBytes[1].dataType, 0);
  EXPECT_EQ(more.info.extraBytes[1].size, 3);
  EXPECT_EQ(more.info.header.recordLength, 30 + 4 + 3 + 1);
  EXPECT_EQ(Tressel::readField<unsigned char>(
                *(*more.grid)(Tressel::StandardCartesianChart3D, "UndescribedBytes_2")),
            (std::vector<unsigned char>{2, 18, 34}));
}

TEST_F(HostileHeaders, OffsetsAndCountsBeyondTheFile) {
  const Synthetic s;
  const std::string size = std::to_string(s.bytes.size());
  auto b = s.bytes;
  // The EVLR offset near 2^64: a bound written as start + length would wrap around.
  set<std::uint64_t>(b, 235, 0xFFFFFFFFFFFFFFF0ull);
  EXPECT_EQ(message(b),
            "1 EVLRs from byte 18446744073709551600 do not fit in the file (" + size + " bytes)");
  b = s.bytes;
  set<std::uint32_t>(b, 243, 0xFFFFFFFFu);
  EXPECT_EQ(message(b), "4294967295 EVLRs from byte " + std::to_string(s.evlrStart) +
                            " do not fit in the file (" + size + " bytes)");
  b = s.bytes;
  set<std::uint64_t>(b, 235, 100); // inside the header
  EXPECT_EQ(message(b), "start of the EVLRs 100 lies inside the header, VLRs or points (which end "
                        "at byte " +
                            std::to_string(s.evlrStart) + ")");
  b = s.bytes;
  set<std::uint64_t>(b, 235, s.pointStart + 30); // inside the points
  EXPECT_EQ(message(b), "start of the EVLRs " + std::to_string(s.pointStart + 30) +
                            " lies inside the header, VLRs or points (which end at byte " +
                            std::to_string(s.evlrStart) + ")");
  b = s.bytes;
  set<std::uint64_t>(b, 247, 1000);
  EXPECT_EQ(message(b), "point count 1000 is larger than the file holds (5)");
  b = s.bytes;
  set<std::uint64_t>(b, 247, ~0ull);
  EXPECT_EQ(message(b), "point count 18446744073709551615 is larger than the file holds (5)");
  b = s.bytes;
  set<std::uint32_t>(b, 96, 0xFFFFFFF0u);
  EXPECT_EQ(message(b),
            "offset to point data 4294967280 lies beyond the end of the file (" + size + " bytes)");
  b = s.bytes;
  set<std::uint32_t>(b, 100, 0xFFFFFFFFu);
  EXPECT_EQ(message(b), "4294967295 VLRs do not fit in the 70 bytes between the header and the "
                        "point data");
  b = s.bytes;
  set<std::uint16_t>(b, 94, 60000);
  EXPECT_EQ(message(b), "header size 60000 is larger than the file (" + size +
                            " bytes); offset to point data 445 lies inside the header (60000 "
                            "bytes)");
}

TEST_F(HostileHeaders, RecordsThatOverlapTheirNeighbours) {
  const Synthetic s;
  auto b = s.bytes;
  // The point data moved back one byte: the VLR now runs into it.
  set<std::uint32_t>(b, 96, static_cast<std::uint32_t>(s.pointStart - 1));
  EXPECT_EQ(message(b), "VLR 0 (\"LASF_Projection\" 34735) of 16 bytes runs past the start of "
                        "the point data at byte 444");
  b = s.bytes;
  set<std::uint16_t>(b, 375 + 20, 60000); // a VLR length beyond everything
  EXPECT_EQ(message(b), "VLR 0 (\"LASF_Projection\" 34735) of 60000 bytes runs past the start "
                        "of the point data at byte 445");
  b = s.bytes;
  set<std::uint64_t>(b, s.evlrStart + 20, ~0ull - 10); // an EVLR length that wraps the sum
  EXPECT_EQ(message(b), "EVLR 0 (\"Quorvel\" 1) of 18446744073709551605 bytes runs past the end "
                        "of the file at byte " +
                            std::to_string(s.bytes.size()));
  b = s.bytes;
  b.resize(s.evlrStart + 30); // an EVLR header cut short
  EXPECT_EQ(message(b), "1 EVLRs from byte " + std::to_string(s.evlrStart) +
                            " do not fit in the file (" + std::to_string(b.size()) + " bytes)");
}

TEST_F(HostileHeaders, AbsurdValues) {
  const Synthetic s;
  auto b = s.bytes;
  set<double>(b, 131, 1e300);
  set<double>(b, 155 + 16, std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(message(b), "scale of x 1.0000000000000001e+300 is not usable (magnitude from 1e-12 "
                        "to 1e6); offset of z nan is not usable (magnitude up to 1e12)");
  b = s.bytes;
  set<double>(b, 139, 0.0);
  EXPECT_EQ(message(b), "scale of y 0 is not usable (magnitude from 1e-12 to 1e6)");
  b = s.bytes;
  b[25] = 2; // format 6 labelled LAS 1.2: the point count has no place there
  EXPECT_EQ(message(b), "point format 6 needs LAS 1.4, the header says 1.2");
  b[104] = 8;
  EXPECT_EQ(message(b), "point record length 30 is shorter than point format 8 needs (38); point "
                        "format 8 needs LAS 1.4, the header says 1.2");
  b = s.bytes;
  set<std::uint16_t>(b, 105, 0xFFFF);
  EXPECT_EQ(message(b), "point count 3 is larger than the file holds (0)");
  b = s.bytes;
  b[104] = 11;
  EXPECT_EQ(message(b), "point format 11 is not supported");
  b[104] = 0x86; // compressed, but without the record that says how
  EXPECT_EQ(message(b), "compressed point data without its \"laszip encoded\" record");
  b[104] = 0xC6;
  EXPECT_EQ(message(b),
            "point format byte 198 (both compression bits: an old compression) is not supported");
  b = s.bytes;
  b[24] = 2;
  set<std::uint16_t>(b, 94, 100);
  EXPECT_EQ(message(b), "LAS version 2.4 is not supported; header size 100 is smaller than LAS "
                        "1.4 needs (375)");
}

TEST_F(HostileHeaders, ExtraBytesDescriptorsThatDoNotFit) {
  EXPECT_EQ(message(Synthetic(191).bytes),
            "extra-bytes record holds 191 bytes, not a whole number of 192-byte descriptors");
  EXPECT_EQ(message(Synthetic(193).bytes),
            "extra-bytes record holds 193 bytes, not a whole number of 192-byte descriptors");
  Synthetic s(192);
  s.bytes[375 + 54 + 16 + 54 + 2] = 10; // float64 where the record has room for four bytes
  EXPECT_EQ(message(s.bytes), "extra-bytes descriptors overrun the point record (8 bytes after "
                              "the 30 of point format 6, record length 34)");
  s.bytes[375 + 54 + 16 + 54 + 2] = 31;
  EXPECT_EQ(message(s.bytes), "extra-bytes dimension \"Amplitude\" has unknown type 31");
}

TEST_F(HostileHeaders, TruncatedForeignAndAbsentFiles) {
  const Synthetic s;
  EXPECT_EQ(message(std::vector<std::uint8_t>(s.bytes.begin(), s.bytes.begin() + 100)),
            "truncated header (100 of 227 bytes)");
  EXPECT_EQ(message(std::vector<std::uint8_t>(s.bytes.begin(), s.bytes.begin() + 300)),
            "truncated header (300 of 375 bytes); header size 375 is larger than the file (300 "
            "bytes); offset to point data 445 lies beyond the end of the file (300 bytes); 1 EVLRs "
            "from byte 535 do not fit in the file (300 bytes)");
  EXPECT_EQ(message(std::vector<std::uint8_t>(s.bytes.begin(), s.bytes.begin() + 2)),
            "not a LAS file (no LASF signature)");
  EXPECT_EQ(message({}), "not a LAS file (no LASF signature)");
  const std::string csv = "x,y,z\n1,2,3\n";
  EXPECT_EQ(message(std::vector<std::uint8_t>(csv.begin(), csv.end())),
            "not a LAS file (no LASF signature)");
  const std::string absent = file("absent.las");
  EXPECT_THROW(
      {
        try {
          Quorvel::Las::read(absent);
        } catch (const Quorvel::Las::Error& e) {
          EXPECT_EQ(std::string(e.what()), absent + ": no such file");
          throw;
        }
      },
      Quorvel::Las::Error);
}

TEST_F(HostileHeaders, OdditiesOfRealWritersAreRead) {
  const Synthetic s;
  auto b = s.bytes;
  set<std::uint32_t>(b, 107, 5); // a legacy count that disagrees: the 64-bit count wins
  EXPECT_EQ(message(b), "(no file name) no error");
  EXPECT_EQ(warnings(b), std::vector<std::string>{
                             "legacy point count 5 differs from the point count 3, which is used"});
  EXPECT_TRUE(warnings(s.bytes).empty());
  b = s.bytes;
  b[104] = 3; // format 3 in a LAS 1.4 file with room for it
  set<std::uint16_t>(b, 105, 34);
  b.insert(b.begin() + static_cast<std::ptrdiff_t>(s.evlrStart), 12, 0);
  set<std::uint64_t>(b, 235, s.evlrStart + 12);
  set<std::uint32_t>(b, 107, 3);
  EXPECT_EQ(message(b), "(no file name) no error");
  b[25] = 1; // format 3 labelled LAS 1.1: records read the same, so only a warning
  EXPECT_EQ(message(b), "(no file name) no error");
  EXPECT_EQ(warnings(b),
            std::vector<std::string>{"point format 3 needs LAS 1.2, the header says 1.1"});
}

} // namespace
