// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the LAZ item coders share: little-endian loads and stores, the format's wrapping
// 32-bit arithmetic, models made on first use, the median of the last five differences, and
// colours predicted from red.
#pragma once

#include "io/laz/arithmetic.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace Quorvel::Laz {

template <class T>
T load(const std::uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <class T>
void store(std::uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof v);
}
template <class T>
void put(std::vector<std::uint8_t>& out, T v) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
  out.insert(out.end(), p, p + sizeof v);
}

// Symbol models chosen by a context, made when first used (a fresh model is the same whenever
// it is made).
template <std::size_t N>
class LazyModels {
public:
  explicit LazyModels(std::uint32_t symbols) : symbols_(symbols) {}
  SymbolModel& operator[](std::size_t k) {
    if (!models_[k])
      models_[k] = std::make_unique<SymbolModel>(symbols_);
    return *models_[k];
  }

private:
  std::uint32_t symbols_;
  std::array<std::unique_ptr<SymbolModel>, N> models_;
};

// Wrapping 32-bit sum, as the format's integer arithmetic.
inline std::int32_t wrap(std::int64_t v) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
}

// Adds a difference to a time pattern, wrapping as the format's 64-bit integers do.
inline void advance(std::int64_t& time, std::int64_t diff) {
  time = static_cast<std::int64_t>(static_cast<std::uint64_t>(time) +
                                   static_cast<std::uint64_t>(diff));
}

// The median of the last five values, kept sorted with a flag that alternates the side replaced.
class Median5 {
public:
  std::int32_t get() const { return v_[2]; }
  void add(std::int32_t x);

private:
  std::array<std::int32_t, 5> v_{};
  bool high_ = true;
};

// Colours: red coded from its last value, green and blue from red's change; bits 0 to 5 of the
// first symbol tell which bytes (red, green, blue; low, high) changed, bit 6 that green or blue
// differ from red.
using Colour = std::array<std::uint16_t, 3>;

struct ColourModels {
  SymbolModel used{128};
  std::array<SymbolModel, 6> diff{SymbolModel(256), SymbolModel(256), SymbolModel(256),
                                  SymbolModel(256), SymbolModel(256), SymbolModel(256)};
};

Colour decodeColour(Decoder& d, ColourModels& m, const Colour& last);
// Encodes v after last; gives the first symbol (0: nothing to code).
unsigned encodeColour(Encoder& e, ColourModels& m, const Colour& last, const Colour& v);

} // namespace Quorvel::Laz
