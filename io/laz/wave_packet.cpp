// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAZ coding of wave packets.
#include "io/laz/wave_packet.hpp"
#include "io/laz/common.hpp"

#include <cstring>

namespace Quorvel::Laz {

namespace {

// The fields after the descriptor index; floats are predicted through their bits.
struct Packet {
  std::uint64_t offset = 0;
  std::uint32_t size = 0;
  std::array<std::int32_t, 4> floats{}; // return point, dx, dy, dz

  explicit Packet(const std::uint8_t* p)
      : offset(load<std::uint64_t>(p + 1)), size(load<std::uint32_t>(p + 9)) {
    std::memcpy(floats.data(), p + 13, 16);
  }
  Packet() = default;
  void storeTo(std::uint8_t* p) const {
    store(p + 1, offset);
    store(p + 9, size);
    std::memcpy(p + 13, floats.data(), 16);
  }
};

// How the offset follows the last packet's.
enum OffsetKind : std::uint32_t { Same = 0, AfterLast = 1, Difference = 2, Raw = 3 };

} // namespace

void WavePacketCoder::decode(Decoder& d, const std::uint8_t* last, std::uint8_t* out) {
  const Packet before(last);
  Packet now;
  const auto index = static_cast<std::uint8_t>(d.decodeSymbol(index_));
  lastKind_ = d.decodeSymbol(offsetKind_[lastKind_]);
  switch (lastKind_) {
  case Same:
    now.offset = before.offset;
    break;
  case AfterLast:
    now.offset = before.offset + before.size;
    break;
  case Difference:
    lastDiff_ = offsetDiff_.decode(d, lastDiff_, 0);
    now.offset = before.offset + static_cast<std::uint64_t>(static_cast<std::int64_t>(lastDiff_));
    break;
  default: {
    const std::uint64_t low = d.readInt();
    now.offset = (static_cast<std::uint64_t>(d.readInt()) << 32) | low;
  }
  }
  now.size =
      static_cast<std::uint32_t>(packetSize_.decode(d, static_cast<std::int32_t>(before.size), 0));
  now.floats[0] = returnPoint_.decode(d, before.floats[0], 0);
  for (std::uint32_t k = 0; k < 3; ++k)
    now.floats[k + 1] = xyz_.decode(d, before.floats[k + 1], k);
  out[0] = index;
  now.storeTo(out);
}

void WavePacketCoder::encode(Encoder& e, const std::uint8_t* last, const std::uint8_t* in) {
  const Packet before(last), now(in);
  e.encodeSymbol(index_, in[0]);
  const std::uint64_t step = now.offset - before.offset;
  const auto diff = static_cast<std::int32_t>(step);
  std::uint32_t kind = Raw;
  if (static_cast<std::int64_t>(step) == diff) {
    // A packet size beyond 2^31 would not come back as "after the last packet"; its offset
    // then goes as a difference.
    if (diff == 0)
      kind = Same;
    else if (before.size <= 0x7FFFFFFFu && diff == static_cast<std::int32_t>(before.size))
      kind = AfterLast;
    else
      kind = Difference;
  }
  e.encodeSymbol(offsetKind_[lastKind_], kind);
  lastKind_ = kind;
  if (kind == Difference) {
    offsetDiff_.encode(e, lastDiff_, diff, 0);
    lastDiff_ = diff;
  } else if (kind == Raw) {
    e.writeInt(static_cast<std::uint32_t>(now.offset));
    e.writeInt(static_cast<std::uint32_t>(now.offset >> 32));
  }
  packetSize_.encode(e, static_cast<std::int32_t>(before.size), static_cast<std::int32_t>(now.size),
                     0);
  returnPoint_.encode(e, before.floats[0], now.floats[0], 0);
  for (std::uint32_t k = 0; k < 3; ++k)
    xyz_.encode(e, before.floats[k + 1], now.floats[k + 1], k);
}

} // namespace Quorvel::Laz
