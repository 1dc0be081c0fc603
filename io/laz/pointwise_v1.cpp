// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: decoding the pointwise items of version 1.
#include "io/laz/pointwise_v1.hpp"
#include "io/detail/las_record.hpp"

#include <algorithm>

namespace Quorvel::Laz {

namespace {

// The legacy record's values by name, and the offsets the coders keep them at.
using R = Las::detail::LegacyRecord;

std::int32_t median3(const std::array<std::int32_t, 3>& v) {
  return std::max(std::min(v[0], v[1]), std::min(std::max(v[0], v[1]), v[2]));
}

} // namespace

void PointItemV1::changes(Decoder& d, unsigned changed, unsigned k) {
  std::uint8_t* l = last_.data();
  if (changed & 32)
    store(l + R::Intensity, static_cast<std::uint16_t>(
                                intensity_.decode(d, load<std::uint16_t>(l + R::Intensity), 0)));
  if (changed & 16)
    l[R::Returns] = static_cast<std::uint8_t>(d.decodeSymbol(returns_[l[R::Returns]]));
  if (changed & 8)
    l[R::Flags] = static_cast<std::uint8_t>(d.decodeSymbol(classes_[l[R::Flags]]));
  if (changed & 4)
    l[R::ScanAngle] = static_cast<std::uint8_t>(scanAngle_.decode(d, l[R::ScanAngle], k < 3));
  if (changed & 2)
    l[R::UserData] = static_cast<std::uint8_t>(d.decodeSymbol(userData_[l[R::UserData]]));
  if (changed & 1)
    store(l + R::PointSource, static_cast<std::uint16_t>(pointSource_.decode(
                                  d, load<std::uint16_t>(l + R::PointSource), 0)));
}

void PointItemV1::next(Decoder& d, std::uint8_t* out) {
  std::uint8_t* l = last_.data();
  const std::int32_t dx = dx_.decode(d, median3(xDiff_), 0);
  store(l, wrap(std::int64_t(load<std::int32_t>(l)) + dx));
  std::uint32_t k = dx_.k();
  const std::int32_t dy = dy_.decode(d, median3(yDiff_), std::min(k, 19u));
  store(l + 4, wrap(std::int64_t(load<std::int32_t>(l + 4)) + dy));
  k = (k + dy_.k()) / 2;
  store(l + 8, z_.decode(d, load<std::int32_t>(l + 8), std::min(k, 19u)));
  if (const unsigned changed = d.decodeSymbol(changed_))
    changes(d, changed, k);
  xDiff_[nextDiff_] = dx;
  yDiff_[nextDiff_] = dy;
  nextDiff_ = nextDiff_ == 2 ? 0 : nextDiff_ + 1;
  std::memcpy(out, l, 20);
}

// Symbols of the time coder: 0 to 509 multiply the last difference (0: a quarter of it), 510
// brings a new time raw, 511 repeats the last.
constexpr int MultiMaxV1 = 512;

void GpsTimeItemV1::multiplied(Decoder& d, int multi) {
  std::int32_t diff;
  auto extreme = [&] {
    if (++extreme_ > 3) {
      diff_ = diff;
      extreme_ = 0;
    }
  };
  if (multi == 1) {
    diff = diff_ = coder_.decode(d, diff_, 1);
    extreme_ = 0;
  } else if (multi == 0) {
    diff = coder_.decode(d, diff_ / 4, 2);
    extreme();
  } else {
    diff = coder_.decode(d, wrap(std::int64_t(multi) * diff_), multi < 10 ? 3 : multi < 50 ? 4 : 5);
    if (multi == MultiMaxV1 - 3)
      extreme();
  }
  advance(time_, diff);
}

void GpsTimeItemV1::next(Decoder& d, std::uint8_t* out) {
  auto raw = [&] {
    const std::uint64_t low = d.readInt();
    time_ = static_cast<std::int64_t>((std::uint64_t(d.readInt()) << 32) | low);
  };
  if (diff_ == 0) {
    const auto multi = d.decodeSymbol(zeroDiff_);
    if (multi == 1) {
      diff_ = coder_.decode(d, 0, 0);
      advance(time_, diff_);
    } else if (multi == 2)
      raw();
  } else {
    const int multi = static_cast<int>(d.decodeSymbol(multi_));
    if (multi < MultiMaxV1 - 2)
      multiplied(d, multi);
    else if (multi == MultiMaxV1 - 2)
      raw();
  }
  store(out, time_);
}

void RgbItemV1::next(Decoder& d, std::uint8_t* out) {
  const std::uint32_t used = d.decodeSymbol(used_);
  for (std::uint32_t i = 0; i < 6; ++i)
    if (used & (1u << i))
      last_[i] = static_cast<std::uint8_t>(bytes_.decode(d, last_[i], i));
  std::memcpy(out, last_.data(), 6);
}

} // namespace Quorvel::Laz
