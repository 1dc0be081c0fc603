// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAZ coding of a wave packet (point formats 4, 5, 9 and 10), shared by the pointwise
// item (WAVEPACKET13) and the layered one (WAVEPACKET14): the descriptor index as a symbol, the
// offset of the waveform data as "same", "after the last packet", a 32-bit difference or raw, and
// the packet size, return point and x, y, z steps predicted from the last packet.
#pragma once

#include "io/laz/arithmetic.hpp"

#include <array>
#include <cstdint>

namespace Quorvel::Laz {

// The 29 bytes of a wave packet: descriptor index, offset, size, return point, dx, dy, dz.
constexpr std::size_t WavePacketSize = 29;

class WavePacketCoder {
public:
  // Decodes the packet after last into out (both 29 bytes; they may be the same).
  void decode(Decoder& d, const std::uint8_t* last, std::uint8_t* out);
  void encode(Encoder& e, const std::uint8_t* last, const std::uint8_t* in);

private:
  SymbolModel index_{256};
  std::array<SymbolModel, 4> offsetKind_{SymbolModel(4), SymbolModel(4), SymbolModel(4),
                                         SymbolModel(4)};
  IntegerCoder offsetDiff_{32, 1}, packetSize_{32, 1}, returnPoint_{32, 1}, xyz_{32, 3};
  std::int32_t lastDiff_ = 0;
  std::uint32_t lastKind_ = 0;
};

} // namespace Quorvel::Laz
