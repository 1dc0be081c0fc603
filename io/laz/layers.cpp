// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the layers of an item of the layered compressor.
#include "io/laz/layers.hpp"

#include <algorithm>

namespace Quorvel::Laz {

ItemLayers::ItemLayers(std::size_t n) : in_(n) {
  for (std::size_t l = 0; l < n; ++l)
    out_.push_back(std::make_unique<Out>());
}

void ItemLayers::readSizes(ChunkReader& in) {
  for (In& l : in_)
    l.bytes = in.u32();
}

void ItemLayers::open(ChunkReader& in) {
  for (In& l : in_) {
    if (l.bytes == 0)
      continue;
    const std::uint8_t* p = in.take(l.bytes);
    l.decoder.emplace(p, l.bytes);
    l.decoder->start();
  }
}

bool ItemLayers::overran() const {
  return std::any_of(in_.begin(), in_.end(),
                     [](const In& l) { return l.decoder && l.decoder->overran(); });
}

void ItemLayers::appendSizes(std::vector<std::uint8_t>& out) {
  for (auto& l : out_) {
    std::uint32_t size = 0;
    if (l->used) {
      l->encoder.done();
      size = static_cast<std::uint32_t>(l->bytes.size());
    }
    put(out, size);
  }
}

void ItemLayers::appendBytes(std::vector<std::uint8_t>& out) const {
  for (const auto& l : out_)
    if (l->used)
      out.insert(out.end(), l->bytes.begin(), l->bytes.end());
}

} // namespace Quorvel::Laz
