// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the GPS time coder of GPSTIME11 and POINT14.
#include "io/laz/gps_time.hpp"

#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel::Laz {

namespace {

// The multiplier symbols 0 to 510: 0 no prediction, 1 to 500 as themselves, 501 to 510 for -1 to
// -10.
constexpr unsigned MultiSymbols = TimeMulti - TimeMultiMinus + 1;

} // namespace

std::optional<std::int32_t> timeDifference(std::int64_t a, std::int64_t b) {
  const auto d =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
  if (d < std::numeric_limits<std::int32_t>::min() || d > std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  return static_cast<std::int32_t>(d);
}

GpsTimeCoder::GpsTimeCoder(bool codesUnchanged)
    : zeroDifference_(codesUnchanged ? 1 : 0), zeroFull_(zeroDifference_ + 1),
      multiFull_(MultiSymbols + (codesUnchanged ? 1 : 0)), multi_(multiFull_ + 4),
      zeroDiff_(zeroFull_ + 4) {}

void GpsTimeCoder::extreme(std::int32_t diff) {
  if (++extreme_[last_] > 3) {
    diff_[last_] = diff;
    extreme_[last_] = 0;
  }
}

void GpsTimeCoder::full(Decoder& d) {
  next_ = (next_ + 1) & 3;
  const auto high = static_cast<std::uint32_t>(coder_.decode(
      d, static_cast<std::int32_t>(static_cast<std::uint64_t>(time_[last_]) >> 32), 8));
  time_[next_] = static_cast<std::int64_t>((std::uint64_t(high) << 32) | d.readInt());
  last_ = next_;
  diff_[last_] = 0;
  extreme_[last_] = 0;
}

bool GpsTimeCoder::afterZeroDifference(Decoder& d) {
  const unsigned symbol = d.decodeSymbol(zeroDiff_);
  if (symbol == zeroDifference_) {
    diff_[last_] = coder_.decode(d, 0, 0);
    advance(time_[last_], diff_[last_]);
    extreme_[last_] = 0;
  } else if (symbol == zeroFull_)
    full(d);
  else if (symbol > zeroFull_) {
    last_ = (last_ + symbol - zeroFull_) & 3;
    return false;
  }
  return true; // below the difference: unchanged
}

void GpsTimeCoder::multiplied(Decoder& d, int multi) {
  const std::int64_t last = diff_[last_];
  std::int32_t diff;
  if (multi == 0) {
    diff = coder_.decode(d, 0, 7);
    extreme(diff);
  } else if (multi < TimeMulti)
    diff = coder_.decode(d, wrap(multi * last), multi < 10 ? 2 : 3);
  else if (multi == TimeMulti) {
    diff = coder_.decode(d, wrap(TimeMulti * last), 4);
    extreme(diff);
  } else {
    multi = TimeMulti - multi;
    if (multi > TimeMultiMinus)
      diff = coder_.decode(d, wrap(multi * last), 5);
    else {
      diff = coder_.decode(d, wrap(TimeMultiMinus * last), 6);
      extreme(diff);
    }
  }
  advance(time_[last_], diff);
}

bool GpsTimeCoder::once(Decoder& d) {
  if (diff_[last_] == 0)
    return afterZeroDifference(d);
  const unsigned symbol = d.decodeSymbol(multi_);
  if (symbol == 1) {
    advance(time_[last_], coder_.decode(d, diff_[last_], 1));
    extreme_[last_] = 0;
  } else if (symbol < MultiSymbols)
    multiplied(d, static_cast<int>(symbol));
  else if (symbol == multiFull_)
    full(d);
  else if (symbol > multiFull_) {
    last_ = (last_ + symbol - multiFull_) & 3;
    return false;
  }
  return true; // between the multipliers and a new sequence: unchanged
}

std::int64_t GpsTimeCoder::decode(Decoder& d) {
  // A switch to another sequence decodes the time again; a writer switches once at most.
  for (int switches = 0; switches < 4; ++switches)
    if (once(d))
      return time_[last_];
  throw std::runtime_error("its GPS times switch sequences without end");
}

// A time close to one of the other three sequences continues that one (symbol base + i).
bool GpsTimeCoder::switchSequence(Encoder& e, std::int64_t time, SymbolModel& model,
                                  unsigned base) {
  for (unsigned i = 1; i < 4; ++i)
    if (timeDifference(time, time_[(last_ + i) & 3])) {
      e.encodeSymbol(model, base + i);
      last_ = (last_ + i) & 3;
      encode(e, time);
      return true;
    }
  return false;
}

// A new sequence: the high 32 bits predicted from the last time's, the low ones raw.
void GpsTimeCoder::encodeFull(Encoder& e, SymbolModel& model, unsigned symbol, std::int64_t time) {
  e.encodeSymbol(model, symbol);
  const auto bits = static_cast<std::uint64_t>(time);
  coder_.encode(e, static_cast<std::int32_t>(static_cast<std::uint64_t>(time_[last_]) >> 32),
                static_cast<std::int32_t>(bits >> 32), 8);
  e.writeInt(static_cast<std::uint32_t>(bits));
  next_ = (next_ + 1) & 3;
  last_ = next_;
  diff_[last_] = 0;
  extreme_[last_] = 0;
  time_[last_] = time;
}

void GpsTimeCoder::encodeDifference(Encoder& e, std::int32_t diff) {
  const std::int64_t last = diff_[last_];
  // The multiplier of the last difference, as LASzip rounds it in single precision.
  const float ratio = static_cast<float>(diff) / static_cast<float>(last);
  const int multi = ratio >= 1e9f    ? TimeMulti
                    : ratio <= -1e9f ? TimeMultiMinus
                                     : static_cast<int>(std::round(ratio));
  if (multi == 1) {
    e.encodeSymbol(multi_, 1);
    coder_.encode(e, diff_[last_], diff, 1);
    extreme_[last_] = 0;
  } else if (multi > 0 && multi < TimeMulti) {
    e.encodeSymbol(multi_, static_cast<std::uint32_t>(multi));
    coder_.encode(e, wrap(multi * last), diff, multi < 10 ? 2 : 3);
  } else if (multi >= TimeMulti) {
    e.encodeSymbol(multi_, TimeMulti);
    coder_.encode(e, wrap(TimeMulti * last), diff, 4);
    extreme(diff);
  } else if (multi < 0 && multi > TimeMultiMinus) {
    e.encodeSymbol(multi_, static_cast<std::uint32_t>(TimeMulti - multi));
    coder_.encode(e, wrap(multi * last), diff, 5);
  } else if (multi < 0) {
    e.encodeSymbol(multi_, TimeMulti - TimeMultiMinus);
    coder_.encode(e, wrap(TimeMultiMinus * last), diff, 6);
    extreme(diff);
  } else {
    e.encodeSymbol(multi_, 0);
    coder_.encode(e, 0, diff, 7);
    extreme(diff);
  }
}

void GpsTimeCoder::encode(Encoder& e, std::int64_t time) {
  const bool zero = diff_[last_] == 0;
  SymbolModel& model = zero ? zeroDiff_ : multi_;
  if (zeroDifference_ == 1 && time == time_[last_]) {
    e.encodeSymbol(model, zero ? 0 : MultiSymbols);
    return;
  }
  const auto diff = timeDifference(time, time_[last_]);
  const unsigned full = zero ? zeroFull_ : multiFull_;
  if (!diff) {
    if (!switchSequence(e, time, model, full))
      encodeFull(e, model, full, time);
    return;
  }
  if (zero) {
    e.encodeSymbol(zeroDiff_, zeroDifference_);
    coder_.encode(e, 0, *diff, 0);
    diff_[last_] = *diff;
    extreme_[last_] = 0;
  } else
    encodeDifference(e, *diff);
  time_[last_] = time;
}

} // namespace Quorvel::Laz
