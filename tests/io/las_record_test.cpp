// SPDX-License-Identifier: BSD-3-Clause
// Tests of the named views of the LAS point records and of the field copies in both directions,
// against records packed independently with Python's struct (the bytes below): every bit field
// of formats 1 and 6 at its extremes, scan angles of both signs, the overlap and withheld flags.
#include "io/detail/las_formats.hpp"
#include "io/detail/las_record.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace Quorvel::Las::detail;

// A record as packed and the values it was packed from, by field name.
struct Packed {
  std::vector<std::uint8_t> bytes;
  std::map<std::string, double> values;
};

// The records of a table: each one's bytes and its values by field name.
std::vector<Packed> records(const std::vector<std::string>& names,
                            const std::vector<std::vector<double>>& values,
                            const std::vector<std::vector<std::uint8_t>>& bytes) {
  std::vector<Packed> out;
  for (std::size_t c = 0; c < values.size(); ++c) {
    out.push_back({bytes[c], {}});
    for (std::size_t i = 0; i < names.size(); ++i)
      out.back().values[names[i]] = values[c][i];
  }
  return out;
}

// struct.pack('<iiiHBBbBHd', x, y, z, intensity, ret | n << 3 | scan << 6 | edge << 7,
//             class | synthetic << 5 | key << 6 | withheld << 7, angle, user, source, gps)
std::vector<Packed> legacy() {
  const std::vector<std::string> names = {"x",
                                          "y",
                                          "z",
                                          "Intensity",
                                          "ReturnNumber",
                                          "NumberOfReturns",
                                          "ScanDirectionFlag",
                                          "EdgeOfFlightLine",
                                          "Classification",
                                          "Synthetic",
                                          "KeyPoint",
                                          "Withheld",
                                          "angle",
                                          "UserData",
                                          "PointSourceId",
                                          "GpsTime"};
  const std::vector<std::vector<double>> values = {
      {-2147483648.0, 2147483647, -1, 65535, 7, 7, 1, 1, 31, 1, 1, 1, -90, 255, 65535, -1.5e9},
      {0, 1, 2, 1, 5, 2, 0, 1, 0, 0, 1, 0, 127, 0, 1, 0.25},
      {3, -4, 5, 2, 1, 1, 1, 0, 12, 1, 0, 1, -128, 17, 0, 4.5e8}};
  const std::vector<std::vector<std::uint8_t>> bytes = {
      {0x00, 0x00, 0x00, 0x80, 0xff, 0xff, 0xff, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
       0xff, 0xff, 0xa6, 0xff, 0xff, 0xff, 0x00, 0x00, 0x00, 0xc0, 0x0b, 0x5a, 0xd6, 0xc1},
      {0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00,
       0x95, 0x40, 0x7f, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xd0, 0x3f},
      {0x03, 0x00, 0x00, 0x00, 0xfc, 0xff, 0xff, 0xff, 0x05, 0x00, 0x00, 0x00, 0x02, 0x00,
       0x49, 0xac, 0x80, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x74, 0xd2, 0xba, 0x41}};
  return records(names, values, bytes);
}

// struct.pack('<iiiHBBBBhHd', x, y, z, intensity, ret | n << 4, synthetic | key << 1 |
//             withheld << 2 | overlap << 3 | channel << 4 | scan << 6 | edge << 7, class, user,
//             angle, source, gps)
std::vector<Packed> extended() {
  const std::vector<std::string> names = {"x",
                                          "y",
                                          "z",
                                          "Intensity",
                                          "ReturnNumber",
                                          "NumberOfReturns",
                                          "Synthetic",
                                          "KeyPoint",
                                          "Withheld",
                                          "Overlap",
                                          "ScannerChannel",
                                          "ScanDirectionFlag",
                                          "EdgeOfFlightLine",
                                          "Classification",
                                          "UserData",
                                          "angle",
                                          "PointSourceId",
                                          "GpsTime"};
  const std::vector<std::vector<double>> values = {
      {-2147483648.0, 2147483647, -1, 65535, 15, 15, 1, 1, 1, 1, 3, 1, 1, 255, 255, -30000, 65535,
       -1.5e9},
      {0, 1, 2, 1, 1, 15, 0, 0, 0, 1, 2, 0, 0, 12, 0, 30000, 1, 0.25},
      {3, -4, 5, 2, 7, 8, 1, 0, 1, 0, 1, 1, 0, 0, 17, -32768, 0, 4.5e8}};
  const std::vector<std::vector<std::uint8_t>> bytes = {
      {0x00, 0x00, 0x00, 0x80, 0xff, 0xff, 0xff, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
       0xff, 0xff, 0xff, 0xd0, 0x8a, 0xff, 0xff, 0x00, 0x00, 0x00, 0xc0, 0x0b, 0x5a, 0xd6, 0xc1},
      {0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0xf1,
       0x28, 0x0c, 0x00, 0x30, 0x75, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xd0, 0x3f},
      {0x03, 0x00, 0x00, 0x00, 0xfc, 0xff, 0xff, 0xff, 0x05, 0x00, 0x00, 0x00, 0x02, 0x00, 0x87,
       0x55, 0x00, 0x11, 0x00, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x74, 0xd2, 0xba, 0x41}};
  return records(names, values, bytes);
}

// The view's values against the packed ones.
template <bool Extended>
void expectView(const Packed& p) {
  const RecordView<Extended> r(p.bytes.data());
  const auto& v = p.values;
  std::int32_t xyz[3];
  r.xyz(xyz);
  EXPECT_EQ(xyz[0], v.at("x"));
  EXPECT_EQ(xyz[1], v.at("y"));
  EXPECT_EQ(xyz[2], v.at("z"));
  EXPECT_EQ(r.intensity(), v.at("Intensity"));
  EXPECT_EQ(r.returnNumber(), v.at("ReturnNumber"));
  EXPECT_EQ(r.returnCount(), v.at("NumberOfReturns"));
  EXPECT_EQ(r.lastReturn(), v.at("ReturnNumber") == v.at("NumberOfReturns"));
  EXPECT_EQ(r.classification(), v.at("Classification"));
  EXPECT_EQ(r.synthetic(), v.at("Synthetic") == 1);
  EXPECT_EQ(r.keyPoint(), v.at("KeyPoint") == 1);
  EXPECT_EQ(r.withheld(), v.at("Withheld") == 1);
  EXPECT_EQ(r.overlap(), Extended && v.at("Overlap") == 1);
  EXPECT_EQ(r.channel(), Extended ? v.at("ScannerChannel") : 0);
  EXPECT_EQ(r.scanDirection(), v.at("ScanDirectionFlag") == 1);
  EXPECT_EQ(r.edgeOfFlightLine(), v.at("EdgeOfFlightLine") == 1);
  EXPECT_EQ(r.userData(), v.at("UserData"));
  EXPECT_EQ(r.pointSource(), v.at("PointSourceId"));
  EXPECT_EQ(r.scanAngleSteps(), v.at("angle"));
  EXPECT_EQ(r.scanAngle(), static_cast<float>(v.at("angle") * (Extended ? 0.006 : 1.0)));
  EXPECT_EQ(r.gpsTime(), v.at("GpsTime"));
}

// An array of one element of the dimension's kind holding value.
std::vector<std::uint8_t> elementOf(const Dim& d, double value) {
  std::vector<std::uint8_t> a(8, 0);
  if (d.kind == Kind::UInt8)
    a[0] = static_cast<std::uint8_t>(value);
  else if (d.kind == Kind::UInt16) {
    const auto v = static_cast<std::uint16_t>(value);
    std::memcpy(a.data(), &v, 2);
  } else
    std::memcpy(a.data(), &value, 8);
  return a;
}

// Every plain value of the format read from the packed record, and the record written anew
// from the values as the writer does: into zeroed bytes, with the positions and scan angle.
template <bool Extended>
void expectCopies(const Packed& p, int pointFormat) {
  std::vector<std::uint8_t> written(p.bytes.size(), 0);
  const RecordView<Extended, std::uint8_t> out(written.data());
  const std::int32_t xyz[3] = {static_cast<std::int32_t>(p.values.at("x")),
                               static_cast<std::int32_t>(p.values.at("y")),
                               static_cast<std::int32_t>(p.values.at("z"))};
  out.setXyz(xyz);
  out.setScanAngleSteps(static_cast<std::int16_t>(p.values.at("angle")));
  for (const Dim& d : dims(pointFormat)) {
    SCOPED_TRACE(d.name);
    const double value = p.values.at(d.name);
    const std::vector<std::uint8_t> expected = elementOf(d, value);
    std::vector<std::uint8_t> read(8, 0);
    copyField<Direction::Read>(fieldCopy(d), p.bytes.data(), read.data(), 0);
    EXPECT_EQ(read, expected);
    EXPECT_TRUE(copyField<Direction::Write>(fieldCopy(d), written.data(), expected.data(), 0));
  }
  EXPECT_EQ(written, p.bytes);
}

TEST(LasRecord, ViewsAndCopiesAgreeWithRecordsPackedElsewhere) {
  for (const Packed& p : legacy()) {
    expectView<false>(p);
    expectCopies<false>(p, 1);
  }
  for (const Packed& p : extended()) {
    expectView<true>(p);
    expectCopies<true>(p, 6);
  }
}

TEST(LasRecord, ValuesThatDoNotFitAreRefusedWithoutTouchingTheRecord) {
  for (const int pointFormat : {1, 6})
    for (const Dim& d : dims(pointFormat)) {
      if (d.bits == 0)
        continue;
      SCOPED_TRACE(std::string(d.name) + " of format " + std::to_string(pointFormat));
      std::vector<std::uint8_t> record(30, 0);
      const std::uint8_t largest = static_cast<std::uint8_t>((1 << d.bits) - 1);
      const std::uint8_t above = static_cast<std::uint8_t>(largest + 1);
      EXPECT_FALSE(copyField<Direction::Write>(fieldCopy(d), record.data(), &above, 0));
      EXPECT_EQ(record, std::vector<std::uint8_t>(30, 0));
      EXPECT_TRUE(copyField<Direction::Write>(fieldCopy(d), record.data(), &largest, 0));
      EXPECT_EQ(record[static_cast<std::size_t>(d.offset)], largest << d.shift);
    }
  // A float64 component written as float32: beyond its range refused, infinity kept.
  const FieldCopy component{4, -4, 0, 0};
  for (const double wide : {1e39, -1e39, std::numeric_limits<double>::infinity(), 2.5}) {
    const double vector[3] = {wide, 0, 0};
    std::uint8_t record[8] = {};
    const bool fits = copyField<Direction::Write>(component, record,
                                                  reinterpret_cast<const std::uint8_t*>(vector), 0);
    EXPECT_EQ(fits, std::isinf(wide) || std::fabs(wide) < 1e38) << wide;
    float stored;
    std::memcpy(&stored, record + 4, 4);
    EXPECT_EQ(stored, fits ? static_cast<float>(wide) : 0.0f) << wide;
  }
}

} // namespace
