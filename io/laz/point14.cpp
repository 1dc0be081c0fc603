// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: POINT14 decoded and encoded: the change bits and the channel, the returns, x, y and z,
// the attributes in their layers, the GPS time.
#include "io/laz/point14.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Quorvel::Laz {

namespace {

// The record's values by name; the offsets that the decoder stores at.
using R = Las::detail::ExtendedRecord;

// Contexts of x and y by number of returns and return number.

constexpr std::uint8_t ReturnMap6[16][16] = {{0, 1, 2, 3, 4, 5, 3, 4, 4, 5, 5, 5, 5, 5, 5, 5},
                                             {1, 0, 1, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3, 3},
                                             {2, 1, 2, 4, 4, 4, 4, 4, 4, 4, 4, 3, 3, 3, 3, 3},
                                             {3, 3, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                             {4, 3, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                             {5, 3, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                             {3, 3, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4, 4},
                                             {4, 3, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4, 4},
                                             {4, 3, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4, 4},
                                             {5, 3, 4, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4, 4},
                                             {5, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 4, 4, 4, 4, 4},
                                             {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 4, 4, 4},
                                             {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 4, 4},
                                             {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 4},
                                             {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5},
                                             {5, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5}};

// How far r lies from n, at most 7.
std::uint32_t returnLevel(std::uint32_t n, std::uint32_t r) {
  return std::min<std::uint32_t>(n > r ? n - r : r - n, 7);
}

} // namespace

Point14Item::Point14Item(bool version4) : version4_(version4) {
  // x, y and z are written even when they do not change.
  layers_.markUsed(XY);
  layers_.markUsed(Z);
}

void Point14Item::first(const std::uint8_t* record) {
  Point14Record p;
  std::memcpy(p.b.data(), record, 30);
  current_ = p.channel();
  channel(current_).start(p);
}

Point14Channel& Point14Item::channel(unsigned k) {
  if (!channels_[k])
    channels_[k] = std::make_unique<Point14Channel>();
  return *channels_[k];
}

Decoder& Point14Item::layer(Layer l) {
  if (!layers_.has(l))
    throw std::runtime_error("a point needs layer " + std::to_string(int(l)) +
                             ", which holds no bytes");
  return layers_.decoder(l);
}

// The model of the change bits: after a first return, after a last one, after a time change.
unsigned Point14Item::stream(const Point14Channel& previous) const {
  return (previous.last.returnNumber() == 1) |
         ((previous.last.returnNumber() >= previous.last.returns()) << 1) |
         (previous.timeChanged << 2);
}

void Point14Item::returnsOf(Point14Channel& c, unsigned changed, std::uint32_t& n,
                            std::uint32_t& r) {
  Decoder& d = layer(XY);
  n = c.last.returns();
  r = c.last.returnNumber();
  if (changed & 4)
    n = d.decodeSymbol(c.returns[n]);
  const bool plus = changed & 1, minus = changed & 2;
  if (plus && !minus)
    r = (r + 1) % 16;
  else if (minus && !plus)
    r = (r + 15) % 16;
  else if (plus && minus)
    r = (changed & 16) ? d.decodeSymbol(c.returnNumbers[r])
                       : (r + d.decodeSymbol(c.sameTime) + 2) % 16;
  c.last.b[R::Returns] = static_cast<std::uint8_t>((n << 4) | r);
}

void Point14Item::position(Point14Channel& c, unsigned changed, std::uint32_t n, std::uint32_t r) {
  Decoder& xy = layer(XY);
  const std::uint32_t context = (ReturnMap6[n][r] << 1) | ((changed >> 4) & 1);
  const std::int32_t dx = c.dx.decode(xy, c.xDiff[context].get(), n == 1);
  store(c.last.b.data(), wrap(std::int64_t(c.last.x()) + dx));
  c.xDiff[context].add(dx);
  const std::int32_t dy =
      c.dy.decode(xy, c.yDiff[context].get(), (n == 1) | (std::min(c.dx.k(), 20u) & ~1u));
  store(c.last.b.data() + 4, wrap(std::int64_t(c.last.y()) + dy));
  c.yDiff[context].add(dy);
  if (layers_.has(Z)) {
    const std::uint32_t kz = std::min((c.dx.k() + c.dy.k()) / 2, 18u) & ~1u;
    const std::uint32_t level = returnLevel(n, r);
    const std::int32_t z = c.dz.decode(layer(Z), c.lastZ[level], (n == 1) | kz);
    store(c.last.b.data() + 8, z);
    c.lastZ[level] = z;
  }
}

unsigned Point14Item::next(std::uint8_t* out) {
  Point14Channel& previous = channel(current_);
  Decoder& xy = layer(XY);
  const unsigned changed = xy.decodeSymbol(previous.changed[stream(previous)]);
  unsigned k = previous.last.channel();
  if (changed & 64) {
    k = (k + xy.decodeSymbol(previous.channelModel) + 1) % 4;
    current_ = k;
  }
  const bool fresh = !channels_[k];
  Point14Channel& c = channel(k);
  if (fresh)
    c.start(previous.last);
  c.last.b[R::Flags] = static_cast<std::uint8_t>((c.last.b[R::Flags] & 0xCF) | (k << 4));
  std::uint32_t n, r;
  returnsOf(c, changed, n, r);
  position(c, changed, n, r);
  attributes(c, changed, n, r);
  const bool timeChanged = (changed >> 4) & 1;
  if (timeChanged)
    store(c.last.b.data() + R::GpsTime, c.time.decode(layer(GpsTime)));
  c.timeChanged = timeChanged;
  std::memcpy(out, c.last.b.data(), 30);
  // Before version 4 the other items take the channel as their context only when it changed with
  // this point, channel 0 otherwise: LASzip 3 passes it on so, and its files decode only so.
  return (changed & 64) || version4_ ? k : 0;
}

void Point14Item::attributes(Point14Channel& c, unsigned changed, std::uint32_t n,
                             std::uint32_t r) {
  std::uint8_t* b = c.last.b.data();
  if (layers_.has(Class)) {
    const std::uint32_t context = (r == 1 && r >= n) | ((b[R::Classification] & 0x1Fu) << 1);
    b[R::Classification] = static_cast<std::uint8_t>(layer(Class).decodeSymbol(c.classes[context]));
  }
  if (layers_.has(Flags)) {
    const std::uint32_t flags = layer(Flags).decodeSymbol(c.flagModels[c.last.flags()]);
    b[R::Flags] =
        static_cast<std::uint8_t>((b[R::Flags] & 0x30) | (flags & 15) | ((flags & 0x30) << 2));
  }
  const std::uint32_t gpsChanged = (changed >> 4) & 1;
  if (layers_.has(Intensity)) {
    const std::uint32_t context = gpsChanged | ((r >= n) << 1) | ((r == 1) << 2);
    const auto i = static_cast<std::uint16_t>(
        c.intensity.decode(layer(Intensity), c.lastIntensity[context], context >> 1));
    c.lastIntensity[context] = i;
    store(b + 12, i);
  }
  if (changed & 8)
    store(b + R::ScanAngle, static_cast<std::int16_t>(c.scanAngle.decode(
                                layer(ScanAngle), c.last.view().scanAngleSteps(), gpsChanged)));
  if (layers_.has(UserData))
    b[R::UserData] = static_cast<std::uint8_t>(
        layer(UserData).decodeSymbol(c.userData[c.last.view().userData() / 4]));
  if (changed & 32)
    store(b + R::PointSource, static_cast<std::uint16_t>(c.pointSource.decode(
                                  layer(PointSource), c.last.view().pointSource(), 0)));
}

// What changed from the channel's (or, for a channel not used yet, the previous) last point.
unsigned Point14Item::changesOf(const Point14Record& p, const Point14Channel& old,
                                unsigned sc) const {
  const std::uint32_t lastR = old.last.returnNumber(), r = p.returnNumber();
  const bool up = r == (lastR + 1) % 16, down = r == (lastR + 15) % 16;
  const bool misc = r != lastR && !up && !down;
  return unsigned(up || misc) | (unsigned(down || misc) << 1) |
         (unsigned(p.returns() != old.last.returns()) << 2) |
         (unsigned(p.view().scanAngleSteps() != old.last.view().scanAngleSteps()) << 3) |
         (unsigned(p.time() != old.last.time()) << 4) |
         (unsigned(p.view().pointSource() != old.last.view().pointSource()) << 5) |
         (unsigned(sc != current_) << 6);
}

void Point14Item::encodeReturns(Point14Channel& c, const Point14Record& p, unsigned changed,
                                std::uint32_t lastN, std::uint32_t lastR) {
  Encoder& xy = out(XY);
  if (changed & 4)
    xy.encodeSymbol(c.returns[lastN], p.returns());
  if ((changed & 3) == 3) {
    if (changed & 16)
      xy.encodeSymbol(c.returnNumbers[lastR], p.returnNumber());
    else
      xy.encodeSymbol(c.sameTime, (p.returnNumber() + 32 - lastR - 2) % 16);
  }
}
void Point14Item::encodePosition(Point14Channel& c, const Point14Record& p, unsigned changed) {
  const std::uint32_t n = p.returns(), r = p.returnNumber();
  const std::uint32_t context = (ReturnMap6[n][r] << 1) | ((changed >> 4) & 1);
  const std::int32_t dx = wrap(std::int64_t(p.x()) - c.last.x());
  c.dx.encode(out(XY), c.xDiff[context].get(), dx, n == 1);
  c.xDiff[context].add(dx);
  const std::int32_t dy = wrap(std::int64_t(p.y()) - c.last.y());
  c.dy.encode(out(XY), c.yDiff[context].get(), dy, (std::min(c.dx.k(), 20u) & ~1u) | (n == 1));
  c.yDiff[context].add(dy);
  const std::uint32_t kz = std::min((c.dx.k() + c.dy.k()) / 2, 18u) & ~1u;
  const std::uint32_t level = returnLevel(n, r);
  c.dz.encode(out(Z), c.lastZ[level], p.z(), kz | (n == 1));
  c.lastZ[level] = p.z();
}

unsigned Point14Item::next(const std::uint8_t* in) {
  Point14Record p;
  std::memcpy(p.b.data(), in, 30);
  const unsigned sc = p.channel();
  Point14Channel& previous = channel(current_);
  const bool fresh = !channels_[sc];
  const Point14Channel& old = fresh ? previous : *channels_[sc];
  const unsigned changed = changesOf(p, old, sc);
  const std::uint32_t lastN = old.last.returns(), lastR = old.last.returnNumber();
  out(XY).encodeSymbol(previous.changed[stream(previous)], changed);
  if (changed & 64)
    out(XY).encodeSymbol(previous.channelModel, (sc + 4 - current_ - 1) % 4);
  Point14Channel& c = channel(sc);
  if (fresh)
    c.start(previous.last);
  encodeReturns(c, p, changed, lastN, lastR);
  encodePosition(c, p, changed);
  encodeAttributes(c, p, changed);
  const bool timeChanged = (changed >> 4) & 1;
  if (timeChanged)
    c.time.encode(out(GpsTime), p.time());
  c.timeChanged = timeChanged;
  c.last = p;
  current_ = sc;
  return (changed & 64) || version4_ ? sc : 0;
}

void Point14Item::encodeAttributes(Point14Channel& c, const Point14Record& p, unsigned changed) {
  const R l = c.last.view(), b = p.view();
  const std::uint32_t n = p.returns(), r = p.returnNumber(), gps = (changed >> 4) & 1;
  const std::uint32_t classContext = (r == 1 && r >= n) | ((l.classification() & 0x1Fu) << 1);
  out(Class, b.classification() != l.classification())
      .encodeSymbol(c.classes[classContext], b.classification());
  out(Flags, p.flags() != c.last.flags()).encodeSymbol(c.flagModels[c.last.flags()], p.flags());
  const std::uint32_t context = gps | ((r >= n) << 1) | ((r == 1) << 2);
  c.intensity.encode(out(Intensity, p.intensity() != c.last.intensity()), c.lastIntensity[context],
                     p.intensity(), context >> 1);
  c.lastIntensity[context] = p.intensity();
  if (changed & 8)
    c.scanAngle.encode(out(ScanAngle), l.scanAngleSteps(), b.scanAngleSteps(), gps);
  out(UserData, b.userData() != l.userData())
      .encodeSymbol(c.userData[l.userData() / 4], b.userData());
  if (changed & 32)
    c.pointSource.encode(out(PointSource), l.pointSource(), b.pointSource(), 0);
}

} // namespace Quorvel::Laz
