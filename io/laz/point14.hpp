// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: POINT14, the point of the layered compressor (point formats 6 to 10), items of
// versions 3 and 4: nine layers (x and y with the change bits, z, class, flags, intensity, scan
// angle, user data, point source, GPS time), every value predicted from the last point of the same
// scanner channel.
#pragma once

#include "io/detail/las_record.hpp"
#include "io/laz/gps_time.hpp"
#include "io/laz/layers.hpp"

#include <array>
#include <cstdint>
#include <memory>

namespace Quorvel::Laz {

// The 30 bytes of a POINT14 record: an extended LAS record.
struct Point14Record {
  std::array<std::uint8_t, 30> b{};
  Las::detail::ExtendedRecord view() const { return Las::detail::ExtendedRecord(b.data()); }
  std::int32_t x() const { return view().load<std::int32_t>(0); }
  std::int32_t y() const { return view().load<std::int32_t>(4); }
  std::int32_t z() const { return view().load<std::int32_t>(8); }
  std::uint16_t intensity() const { return view().intensity(); }
  std::uint32_t returnNumber() const { return view().returnNumber(); }
  std::uint32_t returns() const { return view().returnCount(); }
  std::uint32_t channel() const { return view().channel(); }
  // Class flags, scan direction and edge of flight line as one 6-bit context.
  std::uint32_t flags() const {
    const std::uint8_t f = b[Las::detail::ExtendedRecord::Flags];
    return (f & 15) | ((f >> 2) & 0x30);
  }
  std::int64_t time() const { return view().gpsTimeBits(); }
};

// What POINT14 keeps per scanner channel.
struct Point14Channel {
  Point14Record last;
  std::array<std::uint16_t, 8> lastIntensity{};
  std::array<std::int32_t, 8> lastZ{};
  std::array<Median5, 12> xDiff, yDiff;
  bool timeChanged = false;
  GpsTimeCoder time{false};
  LazyModels<8> changed{128};
  SymbolModel channelModel{3}, sameTime{13};
  LazyModels<16> returns{16}, returnNumbers{16};
  LazyModels<64> classes{256}, flagModels{64}, userData{256};
  IntegerCoder dx{32, 2}, dy{32, 22}, dz{32, 20}, intensity{16, 4}, scanAngle{16, 2},
      pointSource{16, 1};

  void start(const Point14Record& p) {
    last = p;
    lastZ.fill(p.z());
    lastIntensity.fill(p.intensity());
    time.start(p.time());
  }
};

class Point14Item {
public:
  // The nine layers, in the order of the chunk.
  enum Layer { XY, Z, Class, Flags, Intensity, ScanAngle, UserData, PointSource, GpsTime };

  // Version 4: the other items always take the point's channel as their context.
  explicit Point14Item(bool version4);
  void first(const std::uint8_t* record);
  ItemLayers& layers() { return layers_; }
  // Decodes the next record; gives the context of the other items.
  unsigned next(std::uint8_t* out);
  // Encodes the next record; gives the context of the other items.
  unsigned next(const std::uint8_t* in);

private:
  Point14Channel& channel(unsigned k);
  Decoder& layer(Layer l);
  Encoder& out(Layer l, bool needed = true) {
    layers_.markUsed(l, needed);
    return layers_.encoder(l);
  }
  unsigned stream(const Point14Channel& previous) const;
  void returnsOf(Point14Channel& c, unsigned changed, std::uint32_t& n, std::uint32_t& r);
  void position(Point14Channel& c, unsigned changed, std::uint32_t n, std::uint32_t r);
  void attributes(Point14Channel& c, unsigned changed, std::uint32_t n, std::uint32_t r);
  unsigned changesOf(const Point14Record& p, const Point14Channel& old, unsigned sc) const;
  void encodeReturns(Point14Channel& c, const Point14Record& p, unsigned changed,
                     std::uint32_t lastN, std::uint32_t lastR);
  void encodePosition(Point14Channel& c, const Point14Record& p, unsigned changed);
  void encodeAttributes(Point14Channel& c, const Point14Record& p, unsigned changed);

  ItemLayers layers_{9};
  std::array<std::unique_ptr<Point14Channel>, 4> channels_;
  unsigned current_ = 0;
  bool version4_;
};

} // namespace Quorvel::Laz
