// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: WAVEPACKET14, a wave packet per scanner channel.
#include "io/laz/wave_packet14.hpp"

#include <cstring>

namespace Quorvel::Laz {

void WavePacket14Item::first(const std::uint8_t* record, unsigned k) {
  Packet v;
  std::memcpy(v.data(), record, v.size());
  packets_.start(v, k);
}

void WavePacket14Item::next(std::uint8_t* out, unsigned k) {
  if (!layers_.has(0)) {
    std::memcpy(out, packets_.current().data(), WavePacketSize);
    return;
  }
  const auto [last, coder] = packets_.switchTo(k);
  coder->decode(layers_.decoder(0), last->data(), last->data());
  std::memcpy(out, last->data(), WavePacketSize);
}

void WavePacket14Item::next(const std::uint8_t* in, unsigned k) {
  const auto [last, coder] = packets_.switchTo(k);
  layers_.markUsed(0, std::memcmp(in, last->data(), WavePacketSize) != 0);
  coder->encode(layers_.encoder(0), last->data(), in);
  std::memcpy(last->data(), in, WavePacketSize);
}

} // namespace Quorvel::Laz
