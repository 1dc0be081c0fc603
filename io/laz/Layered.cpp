// Quorvel: the layered LASzip compressor, items of versions 3 and 4: the point of formats 6 to 10
// (POINT14), its colour (RGB14), colour and near infrared (RGBNIR14), wave packet (WAVEPACKET14)
// and extra bytes (BYTE14). A chunk holds its first record raw, its point count, the byte count of
// every layer, then the layers, each its own arithmetic-coded stream; values are predicted per
// scanner channel.
#include "io/laz/Layered.hpp"
#include "io/laz/Common.hpp"
#include "io/laz/WavePacket.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

namespace Quorvel::Laz {

namespace {

// The chunk's bytes read in order: the raw first record, the counts, then the layers.
class ChunkReader {
public:
  ChunkReader(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  const std::uint8_t* take(std::size_t n) {
    if (static_cast<std::size_t>(end_ - at_) < n)
      throw std::runtime_error("truncated (its layers need more bytes than it holds)");
    const std::uint8_t* p = at_;
    at_ += n;
    return p;
  }
  std::uint32_t u32() { return load<std::uint32_t>(take(4)); }

private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

// One layer: a decoder over its bytes; a layer of no bytes leaves its values as they were.
struct Layer {
  std::uint32_t bytes = 0;
  std::optional<Decoder> decoder;

  void open(ChunkReader& in) {
    if (bytes == 0)
      return;
    const std::uint8_t* p = in.take(bytes);
    decoder.emplace(p, bytes);
    decoder->start();
  }
  bool valid() const { return decoder.has_value(); }
  bool overran() const { return decoder && decoder->overran(); }
};

// One layer being written: its own stream, kept only when some value of the chunk needed it.
struct OutLayer {
  std::vector<std::uint8_t> bytes;
  Encoder encoder{bytes};
  bool valid = false;

  OutLayer() = default;
  OutLayer(const OutLayer&) = delete;
  OutLayer& operator=(const OutLayer&) = delete;
  // Ends the stream; its size as the chunk lists it.
  std::uint32_t finish() {
    if (!valid)
      return 0;
    encoder.done();
    return static_cast<std::uint32_t>(bytes.size());
  }
  void append(std::vector<std::uint8_t>& out) const {
    if (valid)
      out.insert(out.end(), bytes.begin(), bytes.end());
  }
};

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

// The 30 bytes of a POINT14 record.
struct Point14Record {
  std::array<std::uint8_t, 30> b{};
  std::int32_t x() const { return load<std::int32_t>(b.data()); }
  std::int32_t y() const { return load<std::int32_t>(b.data() + 4); }
  std::int32_t z() const { return load<std::int32_t>(b.data() + 8); }
  std::uint16_t intensity() const { return load<std::uint16_t>(b.data() + 12); }
  std::uint32_t returnNumber() const { return b[14] & 15; }
  std::uint32_t returns() const { return b[14] >> 4; }
  std::uint32_t channel() const { return (b[15] >> 4) & 3; }
  // Class flags, scan direction and edge of flight line as one 6-bit context.
  std::uint32_t flags() const { return (b[15] & 15) | ((b[15] >> 2) & 0x30); }
  std::int64_t time() const { return load<std::int64_t>(b.data() + 22); }
};

// What POINT14 keeps per scanner channel.
struct Channel {
  Point14Record last;
  std::array<std::uint16_t, 8> lastIntensity{};
  std::array<std::int32_t, 8> lastZ{};
  std::array<Median5, 12> xDiff, yDiff;
  unsigned lastSeq = 0, nextSeq = 0;
  std::array<std::int64_t, 4> time{};
  std::array<std::int32_t, 4> timeDiff{};
  std::array<int, 4> extreme{};
  bool timeChanged = false;
  LazyModels<8> changed{128};
  SymbolModel channelModel{3}, sameTime{13};
  LazyModels<16> returns{16}, returnNumbers{16};
  LazyModels<64> classes{256}, flagModels{64}, userData{256};
  SymbolModel multi{515}, zeroDiff{5};
  IntegerCoder dx{32, 2}, dy{32, 22}, dz{32, 20}, intensity{16, 4}, scanAngle{16, 2},
      pointSource{16, 1}, timeCoder{32, 9};

  void start(const Point14Record& p) {
    last = p;
    lastZ.fill(p.z());
    lastIntensity.fill(p.intensity());
    time[0] = p.time();
  }
};

// The nine layers of POINT14.
enum PointLayer { XY, Z, Class, Flags, Intensity, ScanAngle, UserData, PointSource, GpsTime };

class PointItem {
public:
  // x, y and z are written even when they do not change.
  PointItem() { outs_[XY].valid = outs_[Z].valid = true; }
  void first(const std::uint8_t* record) {
    Point14Record p;
    std::memcpy(p.b.data(), record, 30);
    current_ = p.channel();
    channel(current_).start(p);
  }
  void sizes(ChunkReader& in) {
    for (Layer& l : layers_)
      l.bytes = in.u32();
  }
  void open(ChunkReader& in) {
    for (Layer& l : layers_)
      l.open(in);
  }
  bool overran() const {
    return std::any_of(layers_.begin(), layers_.end(), [](const Layer& l) { return l.overran(); });
  }
  // Version 4: the other items always take the point's channel as their context.
  bool version4 = false;
  // Decodes the next record; gives the context of the other items.
  unsigned next(std::uint8_t* out);
  // Encodes the next record; gives the context of the other items.
  unsigned next(const std::uint8_t* in);
  // The layers' sizes, then their bytes, after the chunk's raw first record and point count.
  void appendSizes(std::vector<std::uint8_t>& out) {
    for (std::size_t l = 0; l < outs_.size(); ++l)
      put(out, outs_[l].finish());
  }
  void appendLayers(std::vector<std::uint8_t>& out) const {
    for (const OutLayer& l : outs_)
      l.append(out);
  }

private:
  Encoder& out(PointLayer l, bool needed = true) {
    outs_[l].valid = outs_[l].valid || needed;
    return outs_[l].encoder;
  }
  unsigned changesOf(const Point14Record& p, const Channel& old, unsigned sc) const;
  void encodeReturns(Channel& c, const Point14Record& p, unsigned changed, std::uint32_t lastN,
                     std::uint32_t lastR);
  void encodeAttributes(Channel& c, const Point14Record& p, unsigned changed);
  void encodeGpsTime(Channel& c, std::int64_t t);
  void encodeMultiplied(Channel& c, std::int32_t diff);

  Channel& channel(unsigned k) {
    if (!channels_[k])
      channels_[k] = std::make_unique<Channel>();
    return *channels_[k];
  }
  Decoder& layer(PointLayer l) {
    if (!layers_[l].valid())
      throw std::runtime_error("a point needs layer " + std::to_string(int(l)) +
                               ", which holds no bytes");
    return *layers_[l].decoder;
  }
  bool has(PointLayer l) const { return layers_[l].valid(); }
  void returnsOf(Channel& c, unsigned changed, std::uint32_t& n, std::uint32_t& r);
  void attributes(Channel& c, unsigned changed, std::uint32_t n, std::uint32_t r);
  void gpsTime(Channel& c);
  void multiplied(Channel& c, int multi);

  std::array<Layer, 9> layers_;
  std::array<OutLayer, 9> outs_;
  std::array<std::unique_ptr<Channel>, 4> channels_;
  unsigned current_ = 0;
};

void PointItem::returnsOf(Channel& c, unsigned changed, std::uint32_t& n, std::uint32_t& r) {
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
  c.last.b[14] = static_cast<std::uint8_t>((n << 4) | r);
}

unsigned PointItem::next(std::uint8_t* out) {
  Channel& previous = channel(current_);
  Decoder& xy = layer(XY);
  const unsigned stream = (previous.last.returnNumber() == 1) |
                          ((previous.last.returnNumber() >= previous.last.returns()) << 1) |
                          (previous.timeChanged << 2);
  const unsigned changed = xy.decodeSymbol(previous.changed[stream]);
  unsigned k = previous.last.channel();
  if (changed & 64) {
    k = (k + xy.decodeSymbol(previous.channelModel) + 1) % 4;
    current_ = k;
  }
  const bool fresh = !channels_[k];
  Channel& c = channel(k);
  if (fresh)
    c.start(previous.last);
  c.last.b[15] = static_cast<std::uint8_t>((c.last.b[15] & 0xCF) | (k << 4));
  std::uint32_t n, r;
  returnsOf(c, changed, n, r);
  const std::uint32_t gpsChanged = (changed >> 4) & 1;
  const std::uint32_t context = (ReturnMap6[n][r] << 1) | gpsChanged;
  const std::int32_t dx = c.dx.decode(xy, c.xDiff[context].get(), n == 1);
  store(c.last.b.data(), wrap(std::int64_t(c.last.x()) + dx));
  c.xDiff[context].add(dx);
  const std::int32_t dy =
      c.dy.decode(xy, c.yDiff[context].get(), (n == 1) | (std::min(c.dx.k(), 20u) & ~1u));
  store(c.last.b.data() + 4, wrap(std::int64_t(c.last.y()) + dy));
  c.yDiff[context].add(dy);
  if (has(Z)) {
    const std::uint32_t kz = std::min((c.dx.k() + c.dy.k()) / 2, 18u) & ~1u;
    const std::uint32_t level = returnLevel(n, r);
    const std::int32_t z = c.dz.decode(layer(Z), c.lastZ[level], (n == 1) | kz);
    store(c.last.b.data() + 8, z);
    c.lastZ[level] = z;
  }
  attributes(c, changed, n, r);
  if (gpsChanged)
    gpsTime(c);
  c.timeChanged = gpsChanged;
  std::memcpy(out, c.last.b.data(), 30);
  // Before version 4 the other items take the channel as their context only when it changed with
  // this point, channel 0 otherwise: LASzip 3 passes it on so, and its files decode only so.
  return (changed & 64) || version4 ? k : 0;
}

void PointItem::attributes(Channel& c, unsigned changed, std::uint32_t n, std::uint32_t r) {
  std::uint8_t* b = c.last.b.data();
  if (has(Class)) {
    const std::uint32_t context = (r == 1 && r >= n) | ((b[16] & 0x1Fu) << 1);
    b[16] = static_cast<std::uint8_t>(layer(Class).decodeSymbol(c.classes[context]));
  }
  if (has(Flags)) {
    const std::uint32_t flags = layer(Flags).decodeSymbol(c.flagModels[c.last.flags()]);
    b[15] = static_cast<std::uint8_t>((b[15] & 0x30) | (flags & 15) | ((flags & 0x30) << 2));
  }
  const std::uint32_t gpsChanged = (changed >> 4) & 1;
  if (has(Intensity)) {
    const std::uint32_t context = gpsChanged | ((r >= n) << 1) | ((r == 1) << 2);
    const auto i = static_cast<std::uint16_t>(
        c.intensity.decode(layer(Intensity), c.lastIntensity[context], context >> 1));
    c.lastIntensity[context] = i;
    store(b + 12, i);
  }
  if (changed & 8)
    store(b + 18, static_cast<std::int16_t>(c.scanAngle.decode(
                      layer(ScanAngle), load<std::int16_t>(b + 18), gpsChanged)));
  if (has(UserData))
    b[17] = static_cast<std::uint8_t>(layer(UserData).decodeSymbol(c.userData[b[17] / 4]));
  if (changed & 32)
    store(b + 20, static_cast<std::uint16_t>(
                      c.pointSource.decode(layer(PointSource), load<std::uint16_t>(b + 20), 0)));
}

constexpr int Multi = 500, MultiMinus = -10, MultiCodeFull = 511;

void PointItem::multiplied(Channel& c, int multi) {
  Decoder& d = layer(GpsTime);
  const unsigned s = c.lastSeq;
  const std::int64_t last = c.timeDiff[s];
  std::int32_t diff;
  auto extreme = [&] {
    if (++c.extreme[s] > 3) {
      c.extreme[s] = 0;
      c.timeDiff[s] = diff;
    }
  };
  if (multi == 0) {
    diff = c.timeCoder.decode(d, 0, 7);
    extreme();
  } else if (multi < Multi)
    diff = c.timeCoder.decode(d, wrap(multi * last), multi < 10 ? 2 : 3);
  else if (multi == Multi) {
    diff = c.timeCoder.decode(d, wrap(Multi * last), 4);
    extreme();
  } else {
    multi = Multi - multi;
    if (multi > MultiMinus)
      diff = c.timeCoder.decode(d, wrap(multi * last), 5);
    else {
      diff = c.timeCoder.decode(d, wrap(MultiMinus * last), 6);
      extreme();
    }
  }
  c.time[s] = static_cast<std::int64_t>(static_cast<std::uint64_t>(c.time[s]) +
                                        static_cast<std::uint64_t>(std::int64_t(diff)));
}

void PointItem::gpsTime(Channel& c) {
  Decoder& d = layer(GpsTime);
  auto full = [&] {
    c.nextSeq = (c.nextSeq + 1) & 3;
    const auto high = static_cast<std::uint32_t>(c.timeCoder.decode(
        d, static_cast<std::int32_t>(static_cast<std::uint64_t>(c.time[c.lastSeq]) >> 32), 8));
    c.time[c.nextSeq] = static_cast<std::int64_t>((std::uint64_t(high) << 32) | d.readInt());
    c.lastSeq = c.nextSeq;
    c.timeDiff[c.lastSeq] = 0;
    c.extreme[c.lastSeq] = 0;
  };
  // A switch to another sequence decodes the time again; a writer switches once at most.
  for (int step = 0;; ++step) {
    if (step == 4)
      throw std::runtime_error("its GPS times switch sequences without end");
    const unsigned s = c.lastSeq;
    if (c.timeDiff[s] == 0) {
      const int multi = static_cast<int>(d.decodeSymbol(c.zeroDiff));
      if (multi == 0) {
        const std::int32_t diff = c.timeCoder.decode(d, 0, 0);
        c.timeDiff[s] = diff;
        c.time[s] = static_cast<std::int64_t>(static_cast<std::uint64_t>(c.time[s]) +
                                              static_cast<std::uint64_t>(std::int64_t(diff)));
        c.extreme[s] = 0;
      } else if (multi == 1)
        full();
      else {
        c.lastSeq = (s + static_cast<unsigned>(multi) - 1) & 3;
        continue;
      }
    } else {
      const int multi = static_cast<int>(d.decodeSymbol(c.multi));
      if (multi == 1) {
        const std::int32_t diff = c.timeCoder.decode(d, c.timeDiff[s], 1);
        c.time[s] = static_cast<std::int64_t>(static_cast<std::uint64_t>(c.time[s]) +
                                              static_cast<std::uint64_t>(std::int64_t(diff)));
        c.extreme[s] = 0;
      } else if (multi < MultiCodeFull)
        multiplied(c, multi);
      else if (multi == MultiCodeFull)
        full();
      else {
        c.lastSeq = (s + static_cast<unsigned>(multi - MultiCodeFull)) & 3;
        continue;
      }
    }
    break;
  }
  store(c.last.b.data() + 22, c.time[c.lastSeq]);
}

// What changed from the channel's (or, for a channel not used yet, the previous) last point.
unsigned PointItem::changesOf(const Point14Record& p, const Channel& old, unsigned sc) const {
  const std::uint32_t lastR = old.last.returnNumber(), r = p.returnNumber();
  const bool up = r == (lastR + 1) % 16, down = r == (lastR + 15) % 16;
  const bool misc = r != lastR && !up && !down;
  return unsigned(up || misc) | (unsigned(down || misc) << 1) |
         (unsigned(p.returns() != old.last.returns()) << 2) |
         (unsigned(load<std::int16_t>(p.b.data() + 18) !=
                   load<std::int16_t>(old.last.b.data() + 18))
          << 3) |
         (unsigned(p.time() != old.last.time()) << 4) |
         (unsigned(load<std::uint16_t>(p.b.data() + 20) !=
                   load<std::uint16_t>(old.last.b.data() + 20))
          << 5) |
         (unsigned(sc != current_) << 6);
}

void PointItem::encodeReturns(Channel& c, const Point14Record& p, unsigned changed,
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

unsigned PointItem::next(const std::uint8_t* in) {
  Point14Record p;
  std::memcpy(p.b.data(), in, 30);
  const unsigned sc = p.channel();
  Channel& previous = channel(current_);
  const bool fresh = !channels_[sc];
  const Channel& old = fresh ? previous : *channels_[sc];
  const unsigned changed = changesOf(p, old, sc);
  const std::uint32_t lastN = old.last.returns(), lastR = old.last.returnNumber();
  const unsigned stream = (previous.last.returnNumber() == 1) |
                          ((previous.last.returnNumber() >= previous.last.returns()) << 1) |
                          (previous.timeChanged << 2);
  out(XY).encodeSymbol(previous.changed[stream], changed);
  if (changed & 64)
    out(XY).encodeSymbol(previous.channelModel, (sc + 4 - current_ - 1) % 4);
  Channel& c = channel(sc);
  if (fresh)
    c.start(previous.last);
  encodeReturns(c, p, changed, lastN, lastR);
  const std::uint32_t n = p.returns(), r = p.returnNumber();
  const std::uint32_t gpsChanged = (changed >> 4) & 1;
  const std::uint32_t context = (ReturnMap6[n][r] << 1) | gpsChanged;
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
  encodeAttributes(c, p, changed);
  if (gpsChanged)
    encodeGpsTime(c, p.time());
  c.timeChanged = gpsChanged;
  c.last = p;
  const unsigned result = (changed & 64) || version4 ? sc : 0;
  current_ = sc;
  return result;
}

void PointItem::encodeAttributes(Channel& c, const Point14Record& p, unsigned changed) {
  const std::uint8_t* l = c.last.b.data();
  const std::uint8_t* b = p.b.data();
  const std::uint32_t n = p.returns(), r = p.returnNumber(), gps = (changed >> 4) & 1;
  const std::uint32_t classContext = (r == 1 && r >= n) | ((l[16] & 0x1Fu) << 1);
  out(Class, b[16] != l[16]).encodeSymbol(c.classes[classContext], b[16]);
  out(Flags, p.flags() != c.last.flags()).encodeSymbol(c.flagModels[c.last.flags()], p.flags());
  const std::uint32_t context = gps | ((r >= n) << 1) | ((r == 1) << 2);
  c.intensity.encode(out(Intensity, p.intensity() != c.last.intensity()), c.lastIntensity[context],
                     p.intensity(), context >> 1);
  c.lastIntensity[context] = p.intensity();
  if (changed & 8)
    c.scanAngle.encode(out(ScanAngle), load<std::int16_t>(l + 18), load<std::int16_t>(b + 18), gps);
  out(UserData, b[17] != l[17]).encodeSymbol(c.userData[l[17] / 4], b[17]);
  if (changed & 32)
    c.pointSource.encode(out(PointSource), load<std::uint16_t>(l + 20), load<std::uint16_t>(b + 20),
                         0);
}

void PointItem::encodeMultiplied(Channel& c, std::int32_t diff) {
  Encoder& e = out(GpsTime);
  const unsigned s = c.lastSeq;
  const std::int64_t last = c.timeDiff[s];
  auto extreme = [&] {
    if (++c.extreme[s] > 3) {
      c.extreme[s] = 0;
      c.timeDiff[s] = diff;
    }
  };
  // The multiplier of the last difference, rounded in single precision as LASzip does.
  const float ratio = static_cast<float>(diff) / static_cast<float>(last);
  const int multi = ratio >= 1e9f    ? Multi
                    : ratio <= -1e9f ? MultiMinus
                                     : static_cast<int>(std::round(ratio));
  if (multi > 0 && multi < Multi) {
    const unsigned tag = multi == 1 ? 1 : multi < 10 ? 2 : 3;
    e.encodeSymbol(c.multi, static_cast<std::uint32_t>(multi));
    c.timeCoder.encode(e, wrap(multi * last), diff, tag);
    if (tag == 1)
      c.extreme[s] = 0;
  } else if (multi >= Multi) {
    e.encodeSymbol(c.multi, Multi);
    c.timeCoder.encode(e, wrap(Multi * last), diff, 4);
    extreme();
  } else if (multi < 0 && multi > MultiMinus) {
    e.encodeSymbol(c.multi, static_cast<std::uint32_t>(Multi - multi));
    c.timeCoder.encode(e, wrap(multi * last), diff, 5);
  } else if (multi <= MultiMinus) {
    e.encodeSymbol(c.multi, Multi - MultiMinus);
    c.timeCoder.encode(e, wrap(MultiMinus * last), diff, 6);
    extreme();
  } else {
    e.encodeSymbol(c.multi, 0);
    c.timeCoder.encode(e, 0, diff, 7);
    extreme();
  }
}

// The difference of two time patterns when it fits 32 bits.
std::optional<std::int32_t> timeDifference(std::int64_t a, std::int64_t b) {
  const auto d =
      static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
  if (d < std::numeric_limits<std::int32_t>::min() || d > std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  return static_cast<std::int32_t>(d);
}

void PointItem::encodeGpsTime(Channel& c, std::int64_t t) {
  Encoder& e = out(GpsTime);
  auto full = [&](SymbolModel& model, std::uint32_t symbol) {
    e.encodeSymbol(model, symbol);
    c.timeCoder.encode(
        e, static_cast<std::int32_t>(static_cast<std::uint64_t>(c.time[c.lastSeq]) >> 32),
        static_cast<std::int32_t>(static_cast<std::uint64_t>(t) >> 32), 8);
    e.writeInt(static_cast<std::uint32_t>(static_cast<std::uint64_t>(t)));
    c.lastSeq = c.nextSeq = (c.nextSeq + 1) & 3;
    c.timeDiff[c.lastSeq] = 0;
    c.extreme[c.lastSeq] = 0;
  };
  // The first sequence from start on (in steps from the current one) that t is close to.
  auto sequence = [&](unsigned start) -> int {
    for (unsigned i = start; i < 4; ++i)
      if (timeDifference(t, c.time[(c.lastSeq + i) & 3]))
        return static_cast<int>(i);
    return -1;
  };
  for (int step = 0; step < 8; ++step) {
    const unsigned s = c.lastSeq;
    if (c.timeDiff[s] == 0) {
      const int i = sequence(0);
      if (i == 0) {
        const std::int32_t diff = *timeDifference(t, c.time[s]);
        e.encodeSymbol(c.zeroDiff, 0);
        c.timeCoder.encode(e, 0, diff, 0);
        c.timeDiff[s] = diff;
        c.extreme[s] = 0;
      } else if (i > 0) {
        e.encodeSymbol(c.zeroDiff, static_cast<std::uint32_t>(i + 1));
        c.lastSeq = (s + static_cast<unsigned>(i)) & 3;
        continue;
      } else
        full(c.zeroDiff, 1);
    } else if (const auto diff = timeDifference(t, c.time[s]))
      encodeMultiplied(c, *diff);
    else {
      const int i = sequence(1);
      if (i > 0) {
        e.encodeSymbol(c.multi, static_cast<std::uint32_t>(MultiCodeFull + i));
        c.lastSeq = (s + static_cast<unsigned>(i)) & 3;
        continue;
      }
      full(c.multi, MultiCodeFull);
    }
    break;
  }
  c.time[c.lastSeq] = t;
}

// The items after the point share this: the last value per channel, taken from the channel before
// when a channel is first used. Returning to a channel used before, items of version 3 predict
// from (and update) the value of the channel they come from, as LASzip 3 does; version 4 fixed
// that and takes the channel's own.
template <class Value, class Models>
struct PerChannel {
  std::array<std::unique_ptr<std::pair<Value, Models>>, 4> channels;
  unsigned current = 0;
  bool ownValues = false; // version 4

  // The value to predict from, and the models, of channel k.
  std::pair<Value*, Models*> switchTo(unsigned k) {
    Value* last = &channels[current]->first;
    if (k != current) {
      current = k;
      const bool fresh = !channels[k];
      if (fresh)
        channels[k] = std::make_unique<std::pair<Value, Models>>(*last, Models());
      if (fresh || ownValues)
        last = &channels[k]->first;
    }
    return {last, &channels[k]->second};
  }
  void start(const Value& v, unsigned k) {
    current = k;
    channels[k] = std::make_unique<std::pair<Value, Models>>(v, Models());
  }
};

class RgbItem {
public:
  explicit RgbItem(bool version4) { colours_.ownValues = version4; }
  void first(const std::uint8_t* record, unsigned k) {
    Colour v;
    std::memcpy(v.data(), record, 6);
    colours_.start(v, k);
  }
  Layer layer;
  OutLayer output;
  void next(std::uint8_t* out, unsigned k) {
    if (!layer.valid()) {
      std::memcpy(out, colours_.channels[colours_.current]->first.data(), 6);
      return;
    }
    const auto switched = colours_.switchTo(k);
    *switched.first = decodeColour(*layer.decoder, *switched.second, *switched.first);
    std::memcpy(out, switched.first->data(), 6);
  }
  void next(const std::uint8_t* in, unsigned k) {
    const auto switched = colours_.switchTo(k);
    Colour v;
    std::memcpy(v.data(), in, 6);
    output.valid =
        encodeColour(output.encoder, *switched.second, *switched.first, v) != 0 || output.valid;
    *switched.first = v;
  }

private:
  PerChannel<Colour, ColourModels> colours_;
};

struct NirModels {
  SymbolModel used{4};
  std::array<SymbolModel, 2> diff{SymbolModel(256), SymbolModel(256)};
};

class NirItem {
public:
  explicit NirItem(bool version4) { values_.ownValues = version4; }
  void first(const std::uint8_t* record, unsigned k) {
    values_.start(load<std::uint16_t>(record), k);
  }
  Layer layer;
  OutLayer output;
  void next(const std::uint8_t* in, unsigned k) {
    const auto switched = values_.switchTo(k);
    std::uint16_t* last = switched.first;
    NirModels* models = switched.second;
    const auto v = load<std::uint16_t>(in);
    const unsigned sym =
        unsigned((v & 0xFF) != (*last & 0xFF)) | (unsigned((v & 0xFF00) != (*last & 0xFF00)) << 1);
    output.valid = output.valid || sym != 0;
    Encoder& e = output.encoder;
    e.encodeSymbol(models->used, sym);
    if (sym & 1)
      e.encodeSymbol(models->diff[0], static_cast<std::uint8_t>((v & 0xFF) - (*last & 0xFF)));
    if (sym & 2)
      e.encodeSymbol(models->diff[1], static_cast<std::uint8_t>((v >> 8) - (*last >> 8)));
    *last = v;
  }
  void next(std::uint8_t* out, unsigned k) {
    if (!layer.valid()) {
      store(out, values_.channels[values_.current]->first);
      return;
    }
    const auto switched = values_.switchTo(k);
    std::uint16_t* last = switched.first;
    NirModels* models = switched.second;
    Decoder& d = *layer.decoder;
    const unsigned sym = d.decodeSymbol(models->used);
    std::uint16_t v =
        (sym & 1) ? static_cast<std::uint8_t>(d.decodeSymbol(models->diff[0]) + (*last & 0xFF))
                  : static_cast<std::uint16_t>(*last & 0xFF);
    v |= (sym & 2)
             ? static_cast<std::uint16_t>(
                   static_cast<std::uint8_t>(d.decodeSymbol(models->diff[1]) + (*last >> 8)) << 8)
             : static_cast<std::uint16_t>(*last & 0xFF00);
    *last = v;
    store(out, v);
  }

private:
  PerChannel<std::uint16_t, NirModels> values_;
};

struct ByteModels {
  std::vector<SymbolModel> models;
};

class BytesItem {
public:
  BytesItem(std::size_t n, bool version4) : layers(n), n_(n) {
    values_.ownValues = version4;
    for (std::size_t i = 0; i < n; ++i)
      outputs.push_back(std::make_unique<OutLayer>());
  }
  void first(const std::uint8_t* record, unsigned k) {
    values_.start(std::vector<std::uint8_t>(record, record + n_), k);
  }
  std::vector<Layer> layers;
  std::vector<std::unique_ptr<OutLayer>> outputs;
  void next(const std::uint8_t* in, unsigned k) {
    const auto switched = values_.switchTo(k);
    std::vector<std::uint8_t>& last = *switched.first;
    ByteModels* models = switched.second;
    if (models->models.empty())
      models->models.assign(n_, SymbolModel(256));
    for (std::size_t i = 0; i < n_; ++i) {
      const auto diff = static_cast<std::uint8_t>(in[i] - last[i]);
      OutLayer& o = *outputs[i];
      o.encoder.encodeSymbol(models->models[i], diff);
      o.valid = o.valid || diff != 0;
      last[i] = in[i];
    }
  }
  void next(std::uint8_t* out, unsigned k) {
    const auto switched = values_.switchTo(k);
    std::vector<std::uint8_t>* last = switched.first;
    ByteModels* models = switched.second;
    if (models->models.empty())
      models->models.assign(n_, SymbolModel(256));
    for (std::size_t i = 0; i < n_; ++i) {
      if (layers[i].valid())
        (*last)[i] = static_cast<std::uint8_t>((*last)[i] +
                                               layers[i].decoder->decodeSymbol(models->models[i]));
      out[i] = (*last)[i];
    }
  }

private:
  PerChannel<std::vector<std::uint8_t>, ByteModels> values_;
  std::size_t n_;
};

// WAVEPACKET14: a wave packet per channel.
class WaveItem {
public:
  using Packet = std::array<std::uint8_t, WavePacketSize>;
  explicit WaveItem(bool version4) { packets_.ownValues = version4; }
  void first(const std::uint8_t* record, unsigned k) {
    Packet v;
    std::memcpy(v.data(), record, v.size());
    packets_.start(v, k);
  }
  Layer layer;
  OutLayer output;
  void next(std::uint8_t* out, unsigned k) {
    if (!layer.valid()) {
      std::memcpy(out, packets_.channels[packets_.current]->first.data(), WavePacketSize);
      return;
    }
    const auto switched = packets_.switchTo(k);
    switched.second->decode(*layer.decoder, switched.first->data(), switched.first->data());
    std::memcpy(out, switched.first->data(), WavePacketSize);
  }
  void next(const std::uint8_t* in, unsigned k) {
    const auto switched = packets_.switchTo(k);
    Packet& last = *switched.first;
    output.valid = output.valid || std::memcmp(in, last.data(), WavePacketSize) != 0;
    switched.second->encode(output.encoder, last.data(), in);
    std::memcpy(last.data(), in, WavePacketSize);
  }

private:
  PerChannel<Packet, WavePacketCoder> packets_;
};

// The items of a chunk, in record order.
struct Items {
  PointItem point;
  std::unique_ptr<RgbItem> rgb;
  std::unique_ptr<NirItem> nir;
  std::unique_ptr<WaveItem> wave;
  std::unique_ptr<BytesItem> bytes;
  std::size_t rgbAt = 0, nirAt = 0, waveAt = 0, bytesAt = 0;
};

std::unique_ptr<Items> itemsOf(const std::vector<Item>& list, std::size_t recordLength) {
  auto out = std::make_unique<Items>();
  std::size_t at = 0;
  bool point = false;
  for (const Item& item : list) {
    if (item.version != 3 && item.version != 4)
      throw std::runtime_error("item type " + std::to_string(item.type) + " version " +
                               std::to_string(item.version) + " is not supported");
    const bool v4 = item.version == 4;
    if (item.type == Point14 && at == 0 && item.size == 30) {
      point = true;
      out->point.version4 = v4;
    } else if (item.type == Rgb14 && item.size == 6 && point && !out->rgb && !out->wave) {
      out->rgb = std::make_unique<RgbItem>(v4);
      out->rgbAt = at;
    } else if (item.type == RgbNir14 && item.size == 8 && point && !out->rgb && !out->wave) {
      out->rgb = std::make_unique<RgbItem>(v4);
      out->nir = std::make_unique<NirItem>(v4);
      out->rgbAt = at;
      out->nirAt = at + 6;
    } else if (item.type == WavePacket14 && item.size == WavePacketSize && point && !out->wave) {
      out->wave = std::make_unique<WaveItem>(v4);
      out->waveAt = at;
    } else if (item.type == Byte14 && item.size > 0 && point && !out->bytes) {
      out->bytes = std::make_unique<BytesItem>(item.size, v4);
      out->bytesAt = at;
    } else
      throw std::runtime_error("item type " + std::to_string(item.type) + " of " +
                               std::to_string(item.size) +
                               " bytes does not fit the layered "
                               "compressor's records");
    at += item.size;
  }
  if (!point || at != recordLength)
    throw std::runtime_error("the compressed items make records of " + std::to_string(at) +
                             " bytes, the header says " + std::to_string(recordLength));
  return out;
}

// The point count and the layers' sizes and bytes, after the raw first record.
void openLayers(Items& items, ChunkReader& in, std::uint32_t count) {
  if (in.u32() != count)
    throw std::runtime_error("its point count differs from the chunk table's");
  items.point.sizes(in);
  if (items.rgb)
    items.rgb->layer.bytes = in.u32();
  if (items.nir)
    items.nir->layer.bytes = in.u32();
  if (items.wave)
    items.wave->layer.bytes = in.u32();
  if (items.bytes)
    for (Layer& l : items.bytes->layers)
      l.bytes = in.u32();
  items.point.open(in);
  if (items.rgb)
    items.rgb->layer.open(in);
  if (items.nir)
    items.nir->layer.open(in);
  if (items.wave)
    items.wave->layer.open(in);
  if (items.bytes)
    for (Layer& l : items.bytes->layers)
      l.open(in);
}

bool overran(const Items& items) {
  bool out = items.point.overran() || (items.rgb && items.rgb->layer.overran()) ||
             (items.nir && items.nir->layer.overran()) ||
             (items.wave && items.wave->layer.overran());
  if (items.bytes)
    for (const Layer& l : items.bytes->layers)
      out = out || l.overran();
  return out;
}

// The items after the point, each in the context that the point gives.
template <class Byte>
void others(Items& items, Byte* record, unsigned k) {
  if (items.rgb)
    items.rgb->next(record + items.rgbAt, k);
  if (items.nir)
    items.nir->next(record + items.nirAt, k);
  if (items.wave)
    items.wave->next(record + items.waveAt, k);
  if (items.bytes)
    items.bytes->next(record + items.bytesAt, k);
}

// The raw first record's items, each in its channel.
void firstOf(Items& items, const std::uint8_t* record) {
  items.point.first(record);
  const unsigned k0 = (record[15] >> 4) & 3;
  if (items.rgb)
    items.rgb->first(record + items.rgbAt, k0);
  if (items.nir)
    items.nir->first(record + items.nirAt, k0);
  if (items.wave)
    items.wave->first(record + items.waveAt, k0);
  if (items.bytes)
    items.bytes->first(record + items.bytesAt, k0);
}

} // namespace

void encodeLayeredChunk(const std::uint8_t* records, std::uint32_t count,
                        const std::vector<Item>& list, std::size_t recordLength,
                        std::vector<std::uint8_t>& out) {
  if (count == 0)
    return;
  auto items = itemsOf(list, recordLength);
  out.insert(out.end(), records, records + recordLength);
  firstOf(*items, records);
  for (std::uint32_t i = 1; i < count; ++i) {
    const std::uint8_t* record = records + std::size_t(i) * recordLength;
    others(*items, record, items->point.next(record));
  }
  put(out, count);
  items->point.appendSizes(out);
  if (items->rgb)
    put(out, items->rgb->output.finish());
  if (items->nir)
    put(out, items->nir->output.finish());
  if (items->wave)
    put(out, items->wave->output.finish());
  if (items->bytes)
    for (auto& o : items->bytes->outputs)
      put(out, o->finish());
  items->point.appendLayers(out);
  if (items->rgb)
    items->rgb->output.append(out);
  if (items->nir)
    items->nir->output.append(out);
  if (items->wave)
    items->wave->output.append(out);
  if (items->bytes)
    for (const auto& o : items->bytes->outputs)
      o->append(out);
}

void decodeLayeredChunk(const std::uint8_t* data, std::size_t size, const std::vector<Item>& list,
                        std::uint32_t count, std::size_t recordLength, std::uint8_t* out) {
  if (count == 0)
    return;
  auto items = itemsOf(list, recordLength);
  ChunkReader in(data, size);
  std::memcpy(out, in.take(recordLength), recordLength);
  firstOf(*items, out);
  if (count == 1)
    return;
  openLayers(*items, in, count);
  for (std::uint32_t i = 1; i < count; ++i) {
    std::uint8_t* record = out + std::size_t(i) * recordLength;
    others(*items, record, items->point.next(record));
  }
  if (overran(*items))
    throw std::runtime_error("truncated (its points need more bytes than its layers hold)");
}

} // namespace Quorvel::Laz
