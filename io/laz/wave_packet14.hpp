// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: WAVEPACKET14, the wave packet of the layered compressor, versions 3 and 4: one layer,
// the packet coded as WAVEPACKET13 codes it, predicted from the last of the point's scanner
// channel.
#pragma once

#include "io/laz/layers.hpp"
#include "io/laz/wave_packet.hpp"

namespace Quorvel::Laz {

class WavePacket14Item {
public:
  using Packet = std::array<std::uint8_t, WavePacketSize>;
  explicit WavePacket14Item(bool version4) : packets_(version4) {}
  ItemLayers& layers() { return layers_; }
  void first(const std::uint8_t* record, unsigned k);
  void next(std::uint8_t* out, unsigned k);
  void next(const std::uint8_t* in, unsigned k);

private:
  ItemLayers layers_{1};
  PerChannel<Packet, WavePacketCoder> packets_;
};

} // namespace Quorvel::Laz
