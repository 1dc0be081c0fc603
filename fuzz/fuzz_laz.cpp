// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: LAZ chunks as the bytes give them, decoded by the pointwise and the layered item
// coders of every point format they write (the first bytes choose the format and the number of
// points); a chunk may fail with its error, never read or write outside its buffers.
#include "io/laz/layered.hpp"
#include "io/laz/pointwise.hpp"

#include <stdexcept>

namespace {

using namespace Quorvel::Laz;

struct Format {
  std::vector<Item> items;
  std::size_t length;
  bool layered;
};

const std::vector<Format>& formats() {
  static const std::vector<Format> all{
      {{{Point10, 20, 2}}, 20, false},
      {{{Point10, 20, 2}, {GpsTime11, 8, 2}, {Byte, 3, 2}}, 31, false},
      {{{Point10, 20, 2}, {GpsTime11, 8, 2}, {Rgb12, 6, 2}}, 34, false},
      {{{Point14, 30, 3}}, 30, true},
      {{{Point14, 30, 3}, {Rgb14, 6, 3}, {Byte14, 2, 3}}, 38, true},
      {{{Point14, 30, 3}, {RgbNir14, 8, 3}}, 38, true},
      {{{Point10, 20, 2}, {GpsTime11, 8, 2}, {WavePacket13, 29, 1}}, 57, false},
      {{{Point14, 30, 4}, {RgbNir14, 8, 4}, {WavePacket14, 29, 4}, {Byte14, 2, 4}}, 69, true},
      {{{Point10, 20, 1}, {GpsTime11, 8, 1}, {Rgb12, 6, 1}, {Byte, 27, 1}}, 61, false}};
  return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2)
    return 0;
  const Format& f = formats()[data[0] % formats().size()];
  const std::uint32_t count = 1 + data[1] % 64;
  std::vector<std::uint8_t> out(f.length * count);
  try {
    if (f.layered)
      decodeLayeredChunk(data + 2, size - 2, f.items, count, f.length, out.data());
    else
      decodePointwiseChunk(data + 2, size - 2, f.items, count, f.length, out.data());
  } catch (const std::runtime_error&) {
  }
  return 0;
}
