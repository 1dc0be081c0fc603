// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the pointwise items of version 1, as LASzip 1.x wrote them (2010 and 2011, often
// without chunks): the point predicted from the median of its last three steps, the GPS time from
// its last difference, colour and extra bytes byte by byte. They are decoded only: files are
// written with the items of version 2.
#pragma once

#include "io/laz/common.hpp"

#include <array>
#include <cstdint>
#include <cstring>
#include <vector>

namespace Quorvel::Laz {

// POINT10 of version 1.
class PointItemV1 {
public:
  void first(const std::uint8_t* record) { std::memcpy(last_.data(), record, 20); }
  void next(Decoder& d, std::uint8_t* out);

private:
  void changes(Decoder& d, unsigned changed, unsigned k);

  std::array<std::uint8_t, 20> last_{};
  std::array<std::int32_t, 3> xDiff_{}, yDiff_{};
  unsigned nextDiff_ = 0;
  SymbolModel changed_{64};
  LazyModels<256> returns_{256}, classes_{256}, userData_{256};
  IntegerCoder dx_{32, 1}, dy_{32, 20}, z_{32, 20}, intensity_{16, 1}, scanAngle_{8, 2},
      pointSource_{16, 1};
};

// GPSTIME11 of version 1: one sequence, its difference multiplied by up to 509.
class GpsTimeItemV1 {
public:
  void first(const std::uint8_t* record) { time_ = load<std::int64_t>(record); }
  void next(Decoder& d, std::uint8_t* out);

private:
  void multiplied(Decoder& d, int multi);

  std::int64_t time_ = 0;
  std::int32_t diff_ = 0;
  int extreme_ = 0;
  SymbolModel multi_{512}, zeroDiff_{3};
  IntegerCoder coder_{32, 6};
};

// RGB12 of version 1: a symbol tells which of the six bytes changed; each is coded from its last
// value.
class RgbItemV1 {
public:
  void first(const std::uint8_t* record) { std::memcpy(last_.data(), record, 6); }
  void next(Decoder& d, std::uint8_t* out);

private:
  std::array<std::uint8_t, 6> last_{};
  SymbolModel used_{64};
  IntegerCoder bytes_{8, 6};
};

// BYTE of version 1: every extra byte coded from its last value, one context per byte.
class BytesItemV1 {
public:
  explicit BytesItemV1(std::size_t n) : last_(n), coder_(8, static_cast<std::uint32_t>(n)) {}
  void first(const std::uint8_t* record) { std::memcpy(last_.data(), record, last_.size()); }
  void next(Decoder& d, std::uint8_t* out) {
    for (std::size_t i = 0; i < last_.size(); ++i)
      out[i] = last_[i] =
          static_cast<std::uint8_t>(coder_.decode(d, last_[i], static_cast<std::uint32_t>(i)));
  }

private:
  std::vector<std::uint8_t> last_;
  IntegerCoder coder_;
};

} // namespace Quorvel::Laz
