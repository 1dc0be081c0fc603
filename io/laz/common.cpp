// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the median of five and the colour coding that the LAZ items share.
#include "io/laz/common.hpp"

namespace Quorvel::Laz {

void Median5::add(std::int32_t x) {
  auto& v = v_;
  if (high_) {
    if (x < v[2]) {
      v[4] = v[3];
      v[3] = v[2];
      if (x < v[0]) {
        v[2] = v[1];
        v[1] = v[0];
        v[0] = x;
      } else if (x < v[1]) {
        v[2] = v[1];
        v[1] = x;
      } else
        v[2] = x;
    } else {
      if (x < v[3]) {
        v[4] = v[3];
        v[3] = x;
      } else
        v[4] = x;
      high_ = false;
    }
  } else if (v[2] < x) {
    v[0] = v[1];
    v[1] = v[2];
    if (v[4] < x) {
      v[2] = v[3];
      v[3] = v[4];
      v[4] = x;
    } else if (v[3] < x) {
      v[2] = v[3];
      v[3] = x;
    } else
      v[2] = x;
  } else {
    if (v[1] < x) {
      v[0] = v[1];
      v[1] = x;
    } else
      v[0] = x;
    high_ = true;
  }
}

namespace {

std::uint8_t clampByte(int v) {
  return static_cast<std::uint8_t>(std::clamp(v, 0, 255));
}
int low(std::uint16_t x) {
  return x & 0xFF;
}
int high(std::uint16_t x) {
  return x >> 8;
}

unsigned changedBytes(const Colour& last, const Colour& v) {
  auto differs = [](std::uint16_t a, std::uint16_t b, std::uint16_t mask) {
    return unsigned(((a ^ b) & mask) != 0);
  };
  return differs(last[0], v[0], 0xFF) | (differs(last[0], v[0], 0xFF00) << 1) |
         (differs(last[1], v[1], 0xFF) << 2) | (differs(last[1], v[1], 0xFF00) << 3) |
         (differs(last[2], v[2], 0xFF) << 4) | (differs(last[2], v[2], 0xFF00) << 5) |
         (unsigned(v[0] != v[1] || v[0] != v[2]) << 6);
}

} // namespace

Colour decodeColour(Decoder& d, ColourModels& m, const Colour& last) {
  const unsigned sym = d.decodeSymbol(m.used);
  auto corrected = [&](int model, int prediction) {
    return static_cast<std::uint8_t>(d.decodeSymbol(m.diff[static_cast<std::size_t>(model)]) +
                                     clampByte(prediction));
  };
  Colour v{};
  v[0] = (sym & 1) ? static_cast<std::uint8_t>(d.decodeSymbol(m.diff[0]) + low(last[0]))
                   : static_cast<std::uint16_t>(low(last[0]));
  v[0] |= (sym & 2) ? static_cast<std::uint16_t>(
                          static_cast<std::uint8_t>(d.decodeSymbol(m.diff[1]) + high(last[0])) << 8)
                    : static_cast<std::uint16_t>(last[0] & 0xFF00);
  if (!(sym & 64)) {
    v[1] = v[2] = v[0];
    return v;
  }
  int diff = low(v[0]) - low(last[0]);
  v[1] = (sym & 4) ? corrected(2, diff + low(last[1])) : static_cast<std::uint16_t>(low(last[1]));
  if (sym & 16) {
    diff = (diff + low(v[1]) - low(last[1])) / 2;
    v[2] = corrected(4, diff + low(last[2]));
  } else
    v[2] = static_cast<std::uint16_t>(low(last[2]));
  diff = high(v[0]) - high(last[0]);
  v[1] |= (sym & 8) ? static_cast<std::uint16_t>(corrected(3, diff + high(last[1])) << 8)
                    : static_cast<std::uint16_t>(last[1] & 0xFF00);
  if (sym & 32) {
    diff = (diff + high(v[1]) - high(last[1])) / 2;
    v[2] |= static_cast<std::uint16_t>(corrected(5, diff + high(last[2])) << 8);
  } else
    v[2] |= static_cast<std::uint16_t>(last[2] & 0xFF00);
  return v;
}

unsigned encodeColour(Encoder& e, ColourModels& m, const Colour& last, const Colour& v) {
  const unsigned sym = changedBytes(last, v);
  e.encodeSymbol(m.used, sym);
  auto correct = [&](int model, int value, int prediction) {
    e.encodeSymbol(m.diff[static_cast<std::size_t>(model)],
                   static_cast<std::uint8_t>(value - clampByte(prediction)));
  };
  int diffLow = 0, diffHigh = 0;
  if (sym & 1) {
    diffLow = low(v[0]) - low(last[0]);
    e.encodeSymbol(m.diff[0], static_cast<std::uint8_t>(diffLow));
  }
  if (sym & 2) {
    diffHigh = high(v[0]) - high(last[0]);
    e.encodeSymbol(m.diff[1], static_cast<std::uint8_t>(diffHigh));
  }
  if (!(sym & 64))
    return sym;
  if (sym & 4)
    correct(2, low(v[1]), diffLow + low(last[1]));
  if (sym & 16) {
    diffLow = (diffLow + low(v[1]) - low(last[1])) / 2;
    correct(4, low(v[2]), diffLow + low(last[2]));
  }
  if (sym & 8)
    correct(3, high(v[1]), diffHigh + high(last[1]));
  if (sym & 32) {
    diffHigh = (diffHigh + high(v[1]) - high(last[1])) / 2;
    correct(5, high(v[2]), diffHigh + high(last[2]));
  }
  return sym;
}

} // namespace Quorvel::Laz
