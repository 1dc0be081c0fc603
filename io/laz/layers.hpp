// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the items of the layered compressor share: the chunk read in order, the layers of
// an item (each its own arithmetic-coded stream, read or written) and the values kept per scanner
// channel.
#pragma once

#include "io/laz/common.hpp"

#include <array>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel::Laz {

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

// The layers of one item. Read: a layer of no bytes leaves its values as they were. Written: a
// layer is kept only when some value of the chunk needed it (marked used).
class ItemLayers {
public:
  explicit ItemLayers(std::size_t n);

  // The layers' sizes, then (after every item's sizes) their bytes.
  void readSizes(ChunkReader& in);
  void open(ChunkReader& in);
  bool has(std::size_t l) const { return in_[l].decoder.has_value(); }
  Decoder& decoder(std::size_t l) { return *in_[l].decoder; }
  bool overran() const;

  Encoder& encoder(std::size_t l) { return out_[l]->encoder; }
  void markUsed(std::size_t l, bool used = true) { out_[l]->used = out_[l]->used || used; }
  // Ends the streams and appends their sizes as the chunk lists them; then their bytes.
  void appendSizes(std::vector<std::uint8_t>& out);
  void appendBytes(std::vector<std::uint8_t>& out) const;

private:
  struct In {
    std::uint32_t bytes = 0;
    std::optional<Decoder> decoder;
  };
  struct Out {
    std::vector<std::uint8_t> bytes;
    Encoder encoder{bytes};
    bool used = false;
  };
  std::vector<In> in_;
  std::vector<std::unique_ptr<Out>> out_;
};

// The items after the point keep this: the last value and the models per channel, taken from the
// channel before when a channel is first used. Returning to a channel used before, items of
// version 3 predict from (and update) the value of the channel they come from, as LASzip 3 does;
// version 4 fixed that and takes the channel's own.
template <class Value, class Models>
class PerChannel {
public:
  explicit PerChannel(bool ownValues) : ownValues_(ownValues) {}

  void start(const Value& v, unsigned k) {
    current_ = k;
    channels_[k] = std::make_unique<std::pair<Value, Models>>(v, Models());
  }
  // The value of the channel in use, unchanged.
  const Value& current() const { return channels_[current_]->first; }
  // The value to predict from, and the models, of channel k.
  std::pair<Value*, Models*> switchTo(unsigned k) {
    Value* last = &channels_[current_]->first;
    if (k != current_) {
      current_ = k;
      const bool fresh = !channels_[k];
      if (fresh)
        channels_[k] = std::make_unique<std::pair<Value, Models>>(*last, Models());
      if (fresh || ownValues_)
        last = &channels_[k]->first;
    }
    return {last, &channels_[k]->second};
  }

private:
  std::array<std::unique_ptr<std::pair<Value, Models>>, 4> channels_;
  unsigned current_ = 0;
  bool ownValues_; // version 4
};

} // namespace Quorvel::Laz
