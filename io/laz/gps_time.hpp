// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAZ coding of GPS times, shared by the pointwise item (GPSTIME11) and the point of
// the layered compressor (POINT14): the time as a 64-bit pattern in one of four sequences, each
// predicted from its last difference times a multiplier; a time that is no 32-bit step from any
// sequence starts a new one, its high half predicted and its low half raw.
#pragma once

#include "io/laz/common.hpp"

#include <array>
#include <cstdint>
#include <optional>

namespace Quorvel::Laz {

// Multipliers of the last difference: 1 to Multi, -1 to MultiMinus, 0 for no prediction.
constexpr int TimeMulti = 500, TimeMultiMinus = -10;

// The difference of two time patterns when it fits 32 bits.
std::optional<std::int32_t> timeDifference(std::int64_t a, std::int64_t b);

class GpsTimeCoder {
public:
  // codesUnchanged: a time equal to the last has a symbol of its own (GPSTIME11); POINT14 tells
  // an unchanged time with its point's change bits and codes only changed ones.
  explicit GpsTimeCoder(bool codesUnchanged);

  void start(std::int64_t time) { time_[0] = time; }
  std::int64_t last() const { return time_[last_]; }
  // The next time; throws std::runtime_error when its symbols switch sequences without end.
  std::int64_t decode(Decoder& d);
  void encode(Encoder& e, std::int64_t time);

private:
  bool once(Decoder& d); // false after a switch of sequence
  bool afterZeroDifference(Decoder& d);
  void multiplied(Decoder& d, int multi);
  void full(Decoder& d);
  void encodeDifference(Encoder& e, std::int32_t diff);
  bool switchSequence(Encoder& e, std::int64_t time, SymbolModel& model, unsigned base);
  void encodeFull(Encoder& e, SymbolModel& model, unsigned symbol, std::int64_t time);
  // After four differences beyond the multipliers' reach, the last one becomes the prediction.
  void extreme(std::int32_t diff);

  // Symbols after a zero difference: [unchanged,] difference, new sequence, switch by 1 to 3.
  // After another: multipliers 0 to 510, [unchanged,] new sequence, switch by 1 to 3.
  unsigned zeroDifference_, zeroFull_, multiFull_;
  unsigned last_ = 0, next_ = 0;
  std::array<std::int64_t, 4> time_{};
  std::array<std::int32_t, 4> diff_{};
  std::array<int, 4> extreme_{};
  SymbolModel multi_, zeroDiff_;
  IntegerCoder coder_{32, 9};
};

// GPSTIME11: the GPS time of pointwise records, coded after the point.
class GpsTime11Item {
public:
  void first(const std::uint8_t* record) { coder_.start(load<std::int64_t>(record)); }
  void next(Decoder& d, std::uint8_t* out) { store(out, coder_.decode(d)); }
  void next(Encoder& e, const std::uint8_t* in) { coder_.encode(e, load<std::int64_t>(in)); }

private:
  GpsTimeCoder coder_{true};
};

} // namespace Quorvel::Laz
