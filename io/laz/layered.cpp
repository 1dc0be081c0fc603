// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the layered LASzip compressor, items of versions 3 and 4: the point of formats 6 to 10
// (POINT14, point14.cpp), its colour (RGB14) or colour and near infrared (RGBNIR14, rgb14.cpp),
// wave packet (WAVEPACKET14) and extra bytes (BYTE14). A chunk holds its first record raw, its
// point count, the byte count of every layer, then the layers, each its own arithmetic-coded
// stream; values are predicted per scanner channel.
#include "io/laz/layered.hpp"

#include "io/detail/las_record.hpp"

#include "io/laz/byte14.hpp"
#include "io/laz/point14.hpp"
#include "io/laz/rgb14.hpp"
#include "io/laz/wave_packet14.hpp"

#include <cstring>
#include <memory>
#include <stdexcept>

namespace Quorvel::Laz {

namespace {

// The items of a chunk, in record order, and where each starts in the record.
struct Items {
  std::unique_ptr<Point14Item> point;
  std::unique_ptr<Rgb14Item> rgb;
  std::unique_ptr<Nir14Item> nir;
  std::unique_ptr<WavePacket14Item> wave;
  std::unique_ptr<Byte14Item> bytes;
  std::size_t rgbAt = 0, nirAt = 0, waveAt = 0, bytesAt = 0;

  // f(item, its offset in the record) for every item after the point, in the chunk's order.
  template <class F>
  void eachAfterPoint(F&& f) {
    if (rgb)
      f(*rgb, rgbAt);
    if (nir)
      f(*nir, nirAt);
    if (wave)
      f(*wave, waveAt);
    if (bytes)
      f(*bytes, bytesAt);
  }
  // f(layers) of every item, the point's first.
  template <class F>
  void eachLayers(F&& f) {
    f(point->layers());
    eachAfterPoint([&f](auto& item, std::size_t) { f(item.layers()); });
  }
};

// Whether an item may follow the ones already in the list.
bool fits(const Item& item, const Items& out, std::size_t at) {
  switch (item.type) {
  case Point14:
    return at == 0 && item.size == 30;
  case Rgb14:
    return item.size == 6 && out.point && !out.rgb && !out.wave;
  case RgbNir14:
    return item.size == 8 && out.point && !out.rgb && !out.wave;
  case WavePacket14:
    return item.size == WavePacketSize && out.point && !out.wave;
  case Byte14:
    return item.size > 0 && out.point && !out.bytes;
  default:
    return false;
  }
}

void add(Items& out, const Item& item, std::size_t at) {
  const bool v4 = item.version == 4;
  switch (item.type) {
  case Point14:
    out.point = std::make_unique<Point14Item>(v4);
    break;
  case Rgb14:
  case RgbNir14:
    out.rgb = std::make_unique<Rgb14Item>(v4);
    out.rgbAt = at;
    if (item.type == RgbNir14) {
      out.nir = std::make_unique<Nir14Item>(v4);
      out.nirAt = at + 6;
    }
    break;
  case WavePacket14:
    out.wave = std::make_unique<WavePacket14Item>(v4);
    out.waveAt = at;
    break;
  default:
    out.bytes = std::make_unique<Byte14Item>(item.size, v4);
    out.bytesAt = at;
  }
}

Items itemsOf(const std::vector<Item>& list, std::size_t recordLength) {
  Items out;
  std::size_t at = 0;
  for (const Item& item : list) {
    if (item.version != 3 && item.version != 4)
      throw std::runtime_error("item type " + std::to_string(item.type) + " version " +
                               std::to_string(item.version) + " is not supported");
    if (!fits(item, out, at))
      throw std::runtime_error("item type " + std::to_string(item.type) + " of " +
                               std::to_string(item.size) +
                               " bytes does not fit the layered compressor's records");
    add(out, item, at);
    at += item.size;
  }
  if (!out.point || at != recordLength)
    throw std::runtime_error("the compressed items make records of " + std::to_string(at) +
                             " bytes, the header says " + std::to_string(recordLength));
  return out;
}

// The record after the point: every other item in the context that the point gives.
template <class Byte>
void next(Items& items, Byte* record) {
  const unsigned k = items.point->next(record);
  items.eachAfterPoint([&](auto& item, std::size_t at) { item.next(record + at, k); });
}

// The raw first record's items, each in its channel.
void firstOf(Items& items, const std::uint8_t* record) {
  items.point->first(record);
  const unsigned k = Las::detail::ExtendedRecord(record).channel();
  items.eachAfterPoint([&](auto& item, std::size_t at) { item.first(record + at, k); });
}

} // namespace

void encodeLayeredChunk(const std::uint8_t* records, std::uint32_t count,
                        const std::vector<Item>& list, std::size_t recordLength,
                        std::vector<std::uint8_t>& out) {
  if (count == 0)
    return;
  Items items = itemsOf(list, recordLength);
  out.insert(out.end(), records, records + recordLength);
  firstOf(items, records);
  for (std::uint32_t i = 1; i < count; ++i)
    next(items, records + std::size_t(i) * recordLength);
  put(out, count);
  items.eachLayers([&out](ItemLayers& l) { l.appendSizes(out); });
  items.eachLayers([&out](ItemLayers& l) { l.appendBytes(out); });
}

void decodeLayeredChunk(const std::uint8_t* data, std::size_t size, const std::vector<Item>& list,
                        std::uint32_t count, std::size_t recordLength, std::uint8_t* out) {
  if (count == 0)
    return;
  Items items = itemsOf(list, recordLength);
  ChunkReader in(data, size);
  std::memcpy(out, in.take(recordLength), recordLength);
  firstOf(items, out);
  if (count == 1)
    return;
  // The chunk's own count: a header count short of it would drop its last points.
  if (const std::uint32_t stored = in.u32(); stored != count)
    throw std::runtime_error("it holds " + std::to_string(stored) + " points, the file counts " +
                             std::to_string(count) + " in it");
  items.eachLayers([&in](ItemLayers& l) { l.readSizes(in); });
  items.eachLayers([&in](ItemLayers& l) { l.open(in); });
  for (std::uint32_t i = 1; i < count; ++i)
    next(items, out + std::size_t(i) * recordLength);
  bool overran = false;
  items.eachLayers([&overran](ItemLayers& l) { overran = overran || l.overran(); });
  if (overran)
    throw std::runtime_error("truncated (its points need more bytes than its layers hold)");
}

} // namespace Quorvel::Laz
