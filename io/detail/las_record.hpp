// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the point record of LAS files as named values over its bytes: the legacy record of
// point formats 0 to 5 and the extended record of formats 6 to 10, read by the reader, the
// summary and the LAZ coders and written by the writers; and the copies of plain values between
// records and fragment arrays, in either direction.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Quorvel::Las::detail {

// Where the values of the two records sit. Only the offsets that the two share or that the
// readers and writers reach by name; the format table places the rest (colours, NIR, waves).
template <bool Extended>
struct RecordLayout;

template <>
struct RecordLayout<false> {
  static constexpr int Intensity = 12;      // uint16
  static constexpr int Returns = 14;        // return number (3 bits), count (3), scan, edge
  static constexpr int Flags = 15;          // class (5 bits), synthetic, key point, withheld
  static constexpr int ScanAngle = 16;      // int8, whole degrees
  static constexpr int UserData = 17;       //
  static constexpr int PointSource = 18;    // uint16
  static constexpr int GpsTime = 20;        // float64, in the formats that have it
  static constexpr unsigned ReturnBits = 3; // of the return number and the count
};

template <>
struct RecordLayout<true> {
  static constexpr int Intensity = 12;      // uint16
  static constexpr int Returns = 14;        // return number (4 bits), count (4)
  static constexpr int Flags = 15;          // class flags (4 bits), channel (2), scan, edge
  static constexpr int Classification = 16; //
  static constexpr int UserData = 17;       //
  static constexpr int ScanAngle = 18;      // int16, steps of 0.006 degrees
  static constexpr int PointSource = 20;    // uint16
  static constexpr int GpsTime = 22;        // float64
  static constexpr unsigned ReturnBits = 4;
};

// A record's values by name, over its bytes (const bytes to read, mutable ones to write too).
// Loads and stores are little-endian, the order of the file and of every host built for.
template <bool Extended, class Byte = const std::uint8_t>
class RecordView : public RecordLayout<Extended> {
  using L = RecordLayout<Extended>;

public:
  explicit RecordView(Byte* r) : r_(r) {}

  template <class T>
  T load(int at) const {
    T v;
    std::memcpy(&v, r_ + at, sizeof v);
    return v;
  }
  // The integer coordinates, before scale and offset.
  void xyz(std::int32_t out[3]) const { std::memcpy(out, r_, 12); }
  std::uint16_t intensity() const { return load<std::uint16_t>(L::Intensity); }
  unsigned returnNumber() const { return r_[L::Returns] & ((1u << L::ReturnBits) - 1); }
  unsigned returnCount() const {
    return (r_[L::Returns] >> L::ReturnBits) & ((1u << L::ReturnBits) - 1);
  }
  bool lastReturn() const { return returnNumber() == returnCount(); }
  unsigned classification() const {
    if constexpr (Extended)
      return r_[L::Classification];
    else
      return r_[L::Flags] & 31;
  }
  bool synthetic() const { return flag(Extended ? 0 : 5); }
  bool keyPoint() const { return flag(Extended ? 1 : 6); }
  bool withheld() const { return flag(Extended ? 2 : 7); }
  // Only the extended record marks overlap and a scanner channel.
  bool overlap() const { return Extended && flag(3); }
  unsigned channel() const { return Extended ? (r_[L::Flags] >> 4) & 3 : 0; }
  bool scanDirection() const { return Extended ? flag(6) : (r_[L::Returns] >> 6) & 1; }
  bool edgeOfFlightLine() const { return Extended ? flag(7) : r_[L::Returns] >> 7; }
  std::uint8_t userData() const { return r_[L::UserData]; }
  std::uint16_t pointSource() const { return load<std::uint16_t>(L::PointSource); }
  // The scan angle as stored: whole degrees (legacy) or steps of 0.006 degrees (extended).
  int scanAngleSteps() const {
    if constexpr (Extended)
      return load<std::int16_t>(L::ScanAngle);
    else
      return static_cast<std::int8_t>(r_[L::ScanAngle]);
  }
  // The scan angle in degrees.
  float scanAngle() const {
    if constexpr (Extended)
      return static_cast<float>(scanAngleSteps() * 0.006);
    else
      return static_cast<float>(scanAngleSteps());
  }
  // Of the formats with a GPS time (1, 3, 4, 5 and every extended one).
  double gpsTime() const { return load<double>(L::GpsTime); }
  // The GPS time's bits, as the LAZ coders predict them.
  std::int64_t gpsTimeBits() const { return load<std::int64_t>(L::GpsTime); }

  void setXyz(const std::int32_t xyz[3]) const requires(!std::is_const_v<Byte>) {
    std::memcpy(r_, xyz, 12);
  }
  // A class the record holds: any byte (extended), below 32 (legacy, the flags above it kept).
  void setClassification(unsigned c) const requires(!std::is_const_v<Byte>) {
    if constexpr (Extended)
      r_[L::Classification] = static_cast<std::uint8_t>(c);
    else
      r_[L::Flags] = static_cast<std::uint8_t>((r_[L::Flags] & ~31u) | c);
  }
  // Stores steps already rounded and known to fit the record's integer.
  void setScanAngleSteps(std::int16_t steps) const requires(!std::is_const_v<Byte>) {
    if constexpr (Extended)
      std::memcpy(r_ + L::ScanAngle, &steps, 2);
    else
      r_[L::ScanAngle] = static_cast<std::uint8_t>(static_cast<std::int8_t>(steps));
  }

private:
  bool flag(int bit) const { return (r_[L::Flags] >> bit) & 1; }

  Byte* r_;
};

using LegacyRecord = RecordView<false>;
using ExtendedRecord = RecordView<true>;
using LegacyRecordOut = RecordView<false, std::uint8_t>;
using ExtendedRecordOut = RecordView<true, std::uint8_t>;

// One plain value copied between the record and a field's array: a whole number of bytes, or
// bits of a byte. The same table serves the reader (record to arrays) and the writer (arrays to
// record).
struct FieldCopy {
  int at;            // offset in the record
  int size;          // bytes; 0 for bits; -4 or -8: float32 or float64 as a component of vectors
  int shift = 0;     // bits: position
  std::uint8_t mask; // bits: the largest value
};

enum class Direction { Read, Write };

// The record and array pointers of a copy in direction D.
template <Direction D>
using RecordBytes = std::conditional_t<D == Direction::Read, const std::uint8_t*, std::uint8_t*>;
template <Direction D>
using ArrayBytes = std::conditional_t<D == Direction::Read, std::uint8_t*, const std::uint8_t*>;

// Copies values j0 .. j0 + count - 1 of the array to or from the records r[0 .. count - 1]. Bits
// written are or-ed into records zeroed first. False, writing, when a value does not fit: bits
// above the mask, or a float64 component beyond float32 (the values before it are written, it
// and those after it not). The field's kind is looked at once for the run, and each copy of its
// loop is one move of a fixed size.
template <Direction D>
inline bool copyFieldRun(const FieldCopy& c, const RecordBytes<D>* r, ArrayBytes<D> array,
                         std::size_t j0, std::size_t count) {
  constexpr bool read = D == Direction::Read;
  const auto move = [&](std::size_t width, std::size_t stride) {
    for (std::size_t i = 0; i < count; ++i)
      if constexpr (read)
        std::memcpy(array + stride * (j0 + i), r[i] + c.at, width);
      else
        std::memcpy(r[i] + c.at, array + stride * (j0 + i), width);
    return true;
  };
  switch (c.size) {
  case 0:
    for (std::size_t i = 0; i < count; ++i)
      if constexpr (read)
        array[j0 + i] = static_cast<std::uint8_t>((r[i][c.at] >> c.shift) & c.mask);
      else {
        const std::uint8_t v = array[j0 + i];
        if (v > c.mask)
          return false;
        r[i][c.at] = static_cast<std::uint8_t>(r[i][c.at] | (v << c.shift));
      }
    return true;
  case 1:
    return move(1, 1);
  case 2:
    return move(2, 2);
  case 4:
    return move(4, 4);
  case 8:
    return move(8, 8);
  case -4: // a component of three doubles as float32
    for (std::size_t i = 0; i < count; ++i)
      if constexpr (read) {
        float value;
        std::memcpy(&value, r[i] + c.at, 4);
        const double wide = value;
        std::memcpy(array + 24 * (j0 + i), &wide, 8);
      } else {
        double wide;
        std::memcpy(&wide, array + 24 * (j0 + i), 8);
        const auto value = static_cast<float>(wide);
        if (std::isinf(value) && std::isfinite(wide))
          return false;
        std::memcpy(r[i] + c.at, &value, 4);
      }
    return true;
  default: // a component of three doubles as float64
    return move(8, 24);
  }
}

// Copies value j of the array to or from the record r, as copyFieldRun does for a run of one.
template <Direction D>
inline bool copyField(const FieldCopy& c, RecordBytes<D> r, ArrayBytes<D> array, std::size_t j) {
  return copyFieldRun<D>(c, &r, array, j, 1);
}

} // namespace Quorvel::Las::detail
