// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the pointwise LASzip compressor, items of version 2: the point of formats 0 to 5
// (POINT10), the GPS time (GPSTIME11), the colour (RGB12) and extra bytes (BYTE), and the wave
// packet (WAVEPACKET13, version 1). Chunks of version 1 are decoded with the items of
// PointwiseV1. A chunk starts with its first record raw; every later value is predicted from the
// ones before and only the correction is coded.
#include "io/laz/pointwise.hpp"
#include "io/detail/las_record.hpp"
#include "io/laz/common.hpp"
#include "io/laz/gps_time.hpp"
#include "io/laz/pointwise_v1.hpp"
#include "io/laz/wave_packet.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

namespace Quorvel::Laz {

namespace {

// The legacy record's values by name, and the offsets the coders keep them at.
using R = Las::detail::LegacyRecord;

// Contexts of the x, y, z predictions by return r of n returns: numbered pairs of (n, r) and how
// far r lies from n; the tables also cover files that number returns from 0 or swap r and n.
constexpr unsigned char ReturnMap[8][8] = {
    {15, 14, 13, 12, 11, 10, 9, 8},  {14, 0, 1, 3, 6, 10, 10, 9},
    {13, 1, 2, 4, 7, 11, 11, 10},    {12, 3, 4, 5, 8, 12, 12, 11},
    {11, 6, 7, 8, 9, 13, 13, 12},    {10, 10, 11, 12, 13, 14, 14, 13},
    {9, 10, 11, 12, 13, 14, 15, 14}, {8, 9, 10, 11, 12, 13, 14, 15}};
constexpr unsigned char ReturnLevel[8][8] = {{0, 1, 2, 3, 4, 5, 6, 7}, {1, 0, 1, 2, 3, 4, 5, 6},
                                             {2, 1, 0, 1, 2, 3, 4, 5}, {3, 2, 1, 0, 1, 2, 3, 4},
                                             {4, 3, 2, 1, 0, 1, 2, 3}, {5, 4, 3, 2, 1, 0, 1, 2},
                                             {6, 5, 4, 3, 2, 1, 0, 1}, {7, 6, 5, 4, 3, 2, 1, 0}};

// POINT10: x, y, z, intensity, the returns byte, class, scan angle, user data, point source.
class PointItem {
public:
  void first(const std::uint8_t* record) {
    std::memcpy(last_.data(), record, 20);
    store<std::uint16_t>(last_.data() + 12, 0); // intensities are predicted per context
  }
  void next(Decoder& d, std::uint8_t* out);
  void next(Encoder& e, const std::uint8_t* in);

private:
  void changes(Decoder& d, unsigned changed, unsigned m);
  void changes(Encoder& e, unsigned changed, unsigned m, const std::uint8_t* in);

  std::array<std::uint8_t, 20> last_{};
  std::array<std::uint16_t, 16> lastIntensity_{};
  std::array<Median5, 16> xDiff_, yDiff_;
  std::array<std::int32_t, 8> lastHeight_{};
  SymbolModel changed_{64};
  SymbolModel scanAngle_[2] = {SymbolModel(256), SymbolModel(256)};
  LazyModels<256> returns_{256}, classes_{256}, userData_{256};
  IntegerCoder intensity_{16, 4}, pointSource_{16, 1}, dx_{32, 2}, dy_{32, 22}, z_{32, 20};
};

void PointItem::changes(Decoder& d, unsigned changed, unsigned m) {
  std::uint8_t* l = last_.data();
  if (changed & 16) {
    const auto i =
        static_cast<std::uint16_t>(intensity_.decode(d, lastIntensity_[m], m < 3 ? m : 3));
    store(l + R::Intensity, i);
    lastIntensity_[m] = i;
  } else
    store(l + R::Intensity, lastIntensity_[m]);
  if (changed & 8)
    l[R::Flags] = static_cast<std::uint8_t>(d.decodeSymbol(classes_[l[R::Flags]]));
  if (changed & 4)
    l[R::ScanAngle] = static_cast<std::uint8_t>(d.decodeSymbol(scanAngle_[R(l).scanDirection()]) +
                                                l[R::ScanAngle]);
  if (changed & 2)
    l[R::UserData] = static_cast<std::uint8_t>(d.decodeSymbol(userData_[l[R::UserData]]));
  if (changed & 1)
    store(l + R::PointSource, static_cast<std::uint16_t>(pointSource_.decode(
                                  d, load<std::uint16_t>(l + R::PointSource), 0)));
}

void PointItem::next(Decoder& d, std::uint8_t* out) {
  std::uint8_t* l = last_.data();
  const unsigned changed = d.decodeSymbol(changed_);
  if (changed & 32)
    l[R::Returns] = static_cast<std::uint8_t>(d.decodeSymbol(returns_[l[R::Returns]]));
  const unsigned r = R(l).returnNumber(), n = R(l).returnCount();
  const unsigned m = ReturnMap[n][r], level = ReturnLevel[n][r];
  if (changed)
    changes(d, changed, m);
  const std::int32_t dx = dx_.decode(d, xDiff_[m].get(), n == 1);
  store(l, wrap(std::int64_t(load<std::int32_t>(l)) + dx));
  xDiff_[m].add(dx);
  std::uint32_t k = dx_.k();
  const std::int32_t dy = dy_.decode(d, yDiff_[m].get(), (n == 1) + (k < 20 ? k & ~1u : 20));
  store(l + 4, wrap(std::int64_t(load<std::int32_t>(l + 4)) + dy));
  yDiff_[m].add(dy);
  k = (dx_.k() + dy_.k()) / 2;
  const std::int32_t z = z_.decode(d, lastHeight_[level], (n == 1) + (k < 18 ? k & ~1u : 18));
  store(l + 8, z);
  lastHeight_[level] = z;
  std::memcpy(out, l, 20);
}

void PointItem::changes(Encoder& e, unsigned changed, unsigned m, const std::uint8_t* in) {
  const std::uint8_t* l = last_.data();
  if (changed & 32)
    e.encodeSymbol(returns_[l[R::Returns]], in[R::Returns]);
  if (changed & 16) {
    const auto i = load<std::uint16_t>(in + R::Intensity);
    intensity_.encode(e, lastIntensity_[m], i, m < 3 ? m : 3);
    lastIntensity_[m] = i;
  }
  if (changed & 8)
    e.encodeSymbol(classes_[l[R::Flags]], in[R::Flags]);
  if (changed & 4)
    e.encodeSymbol(scanAngle_[R(in).scanDirection()],
                   static_cast<std::uint8_t>(in[R::ScanAngle] - l[R::ScanAngle]));
  if (changed & 2)
    e.encodeSymbol(userData_[l[R::UserData]], in[R::UserData]);
  if (changed & 1)
    pointSource_.encode(e, load<std::uint16_t>(l + R::PointSource),
                        load<std::uint16_t>(in + R::PointSource), 0);
}

void PointItem::next(Encoder& e, const std::uint8_t* in) {
  const std::uint8_t* l = last_.data();
  const unsigned r = R(in).returnNumber(), n = R(in).returnCount();
  const unsigned m = ReturnMap[n][r], level = ReturnLevel[n][r];
  const unsigned changed =
      (unsigned(in[R::Returns] != l[R::Returns]) << 5) |
      (unsigned(load<std::uint16_t>(in + R::Intensity) != lastIntensity_[m]) << 4) |
      (unsigned(in[R::Flags] != l[R::Flags]) << 3) |
      (unsigned(in[R::ScanAngle] != l[R::ScanAngle]) << 2) |
      (unsigned(in[R::UserData] != l[R::UserData]) << 1) |
      unsigned(load<std::uint16_t>(in + R::PointSource) != load<std::uint16_t>(l + R::PointSource));
  e.encodeSymbol(changed_, changed);
  changes(e, changed, m, in);
  const std::int32_t dx = wrap(std::int64_t(load<std::int32_t>(in)) - load<std::int32_t>(l));
  dx_.encode(e, xDiff_[m].get(), dx, n == 1);
  xDiff_[m].add(dx);
  std::uint32_t k = dx_.k();
  const std::int32_t dy =
      wrap(std::int64_t(load<std::int32_t>(in + 4)) - load<std::int32_t>(l + 4));
  dy_.encode(e, yDiff_[m].get(), dy, (n == 1) + (k < 20 ? k & ~1u : 20));
  yDiff_[m].add(dy);
  k = (dx_.k() + dy_.k()) / 2;
  const auto z = load<std::int32_t>(in + 8);
  z_.encode(e, lastHeight_[level], z, (n == 1) + (k < 18 ? k & ~1u : 18));
  lastHeight_[level] = z;
  std::memcpy(last_.data(), in, 20);
}

// RGB12: red, green and blue, low and high bytes; green and blue predicted from red's change.
class RgbItem {
public:
  void first(const std::uint8_t* record) { std::memcpy(last_.data(), record, 6); }
  void next(Decoder& d, std::uint8_t* out) {
    last_ = decodeColour(d, models_, last_);
    std::memcpy(out, last_.data(), 6);
  }
  void next(Encoder& e, const std::uint8_t* in) {
    Colour v;
    std::memcpy(v.data(), in, 6);
    encodeColour(e, models_, last_, v);
    last_ = v;
  }

private:
  Colour last_{};
  ColourModels models_;
};

// BYTE: every extra byte corrected from its last value, one model per byte.
class BytesItem {
public:
  explicit BytesItem(std::size_t n) : last_(n), models_(n, SymbolModel(256)) {}
  void first(const std::uint8_t* record) { std::memcpy(last_.data(), record, last_.size()); }
  void next(Decoder& d, std::uint8_t* out) {
    for (std::size_t i = 0; i < last_.size(); ++i)
      out[i] = last_[i] = static_cast<std::uint8_t>(last_[i] + d.decodeSymbol(models_[i]));
  }
  void next(Encoder& e, const std::uint8_t* in) {
    for (std::size_t i = 0; i < last_.size(); ++i) {
      e.encodeSymbol(models_[i], static_cast<std::uint8_t>(in[i] - last_[i]));
      last_[i] = in[i];
    }
  }

private:
  std::vector<std::uint8_t> last_;
  std::vector<SymbolModel> models_;
};

// WAVEPACKET13: the wave packet predicted from the last.
class WaveItem {
public:
  void first(const std::uint8_t* record) { std::memcpy(last_.data(), record, last_.size()); }
  void next(Decoder& d, std::uint8_t* out) {
    coder_.decode(d, last_.data(), last_.data());
    std::memcpy(out, last_.data(), last_.size());
  }
  void next(Encoder& e, const std::uint8_t* in) {
    coder_.encode(e, last_.data(), in);
    std::memcpy(last_.data(), in, last_.size());
  }

private:
  std::array<std::uint8_t, WavePacketSize> last_{};
  WavePacketCoder coder_;
};

// The items of one chunk, in record order, of one version.
template <class Point, class Time, class Rgb, class Bytes>
struct Items {
  std::unique_ptr<Point> point;
  std::unique_ptr<Time> time;
  std::unique_ptr<Rgb> rgb;
  std::unique_ptr<WaveItem> wave;
  std::unique_ptr<Bytes> bytes;
  std::size_t timeAt = 0, rgbAt = 0, waveAt = 0, bytesAt = 0;

  // The items that the record's item list names, checked against the record length.
  static Items of(const std::vector<Item>& list, std::size_t recordLength);

  template <class Byte, class F>
  void each(Byte* record, F&& f) {
    f(*point, record);
    if (time)
      f(*time, record + timeAt);
    if (rgb)
      f(*rgb, record + rgbAt);
    if (wave)
      f(*wave, record + waveAt);
    if (bytes)
      f(*bytes, record + bytesAt);
  }
};

template <class Point, class Time, class Rgb, class Bytes>
Items<Point, Time, Rgb, Bytes> Items<Point, Time, Rgb, Bytes>::of(const std::vector<Item>& list,
                                                                  std::size_t recordLength) {
  Items out;
  std::size_t at = 0;
  for (const Item& item : list) {
    if (item.type == Point10 && at == 0 && item.size == 20 && !out.point)
      out.point = std::make_unique<Point>();
    else if (item.type == GpsTime11 && item.size == 8 && out.point && !out.time) {
      out.time = std::make_unique<Time>();
      out.timeAt = at;
    } else if (item.type == Rgb12 && item.size == 6 && out.point && !out.rgb && !out.wave) {
      out.rgb = std::make_unique<Rgb>();
      out.rgbAt = at;
    } else if (item.type == Byte && item.size > 0 && out.point && !out.bytes) {
      out.bytes = std::make_unique<Bytes>(item.size);
      out.bytesAt = at;
    } else if (item.type == WavePacket13 && item.size == WavePacketSize && out.point && !out.wave) {
      out.wave = std::make_unique<WaveItem>();
      out.waveAt = at;
    } else
      throw std::runtime_error("item type " + std::to_string(item.type) + " of " +
                               std::to_string(item.size) +
                               " bytes does not fit the pointwise "
                               "compressor's records");
    at += item.size;
  }
  if (!out.point || at != recordLength)
    throw std::runtime_error("the compressed items make records of " + std::to_string(at) +
                             " bytes, the header says " + std::to_string(recordLength));
  return out;
}

using ItemsV2 = Items<PointItem, GpsTime11Item, RgbItem, BytesItem>;
using ItemsV1 = Items<PointItemV1, GpsTimeItemV1, RgbItemV1, BytesItemV1>;

// The version of a chunk's items: wave packets have only version 1; the others are all of
// version 1 (LASzip 1.x) or all of version 2.
std::uint16_t versionOf(const std::vector<Item>& list) {
  const std::uint16_t version = list.empty() ? 2 : list.front().version;
  for (const Item& item : list) {
    const bool known =
        item.type == WavePacket13 ? item.version == 1 : item.version == 1 || item.version == 2;
    if (!known)
      throw std::runtime_error("item type " + std::to_string(item.type) + " version " +
                               std::to_string(item.version) + " is not supported");
    if (item.type != WavePacket13 && item.version != version)
      throw std::runtime_error("its items mix versions 1 and 2");
  }
  return version;
}

template <class Set>
void decodeChunk(Decoder& d, const std::vector<Item>& list, std::uint32_t count,
                 std::size_t recordLength, std::uint8_t* out) {
  Set items = Set::of(list, recordLength);
  items.each(out, [](auto& item, const std::uint8_t* at) { item.first(at); });
  d.start();
  for (std::uint32_t i = 1; i < count; ++i) {
    // Points beyond the bytes decode from zeros: stopped early rather than at the end.
    if ((i & 0xFFFF) == 0 && d.overran())
      return;
    std::uint8_t* record = out + i * recordLength;
    items.each(record, [&d](auto& item, std::uint8_t* at) { item.next(d, at); });
  }
}

} // namespace

void encodePointwiseChunk(const std::uint8_t* records, std::uint32_t count,
                          const std::vector<Item>& list, std::size_t recordLength,
                          std::vector<std::uint8_t>& out) {
  if (count == 0)
    return;
  if (versionOf(list) != 2)
    throw std::runtime_error("items of version 1 are not written");
  ItemsV2 items = ItemsV2::of(list, recordLength);
  out.insert(out.end(), records, records + recordLength);
  items.each(records, [](auto& item, const std::uint8_t* at) { item.first(at); });
  Encoder e(out);
  for (std::uint32_t i = 1; i < count; ++i)
    items.each(records + std::size_t(i) * recordLength,
               [&e](auto& item, const std::uint8_t* at) { item.next(e, at); });
  e.done();
}

std::size_t decodePointwiseChunk(const std::uint8_t* data, std::size_t size,
                                 const std::vector<Item>& list, std::uint32_t count,
                                 std::size_t recordLength, std::uint8_t* out) {
  if (count == 0)
    return size;
  const std::uint16_t version = versionOf(list);
  Decoder d(data, size);
  if (!d.rawBytes(out, recordLength))
    throw std::runtime_error("truncated (its first point is missing)");
  if (version == 1)
    decodeChunk<ItemsV1>(d, list, count, recordLength, out);
  else
    decodeChunk<ItemsV2>(d, list, count, recordLength, out);
  if (d.overran())
    throw std::runtime_error("truncated (its points need more bytes than it holds)");
  return d.unread();
}

} // namespace Quorvel::Laz
