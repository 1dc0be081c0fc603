// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: BYTE14, the extra bytes of the layered compressor, versions 3 and 4: a layer per byte,
// each byte coded as its difference from the last of the point's scanner channel.
#pragma once

#include "io/laz/layers.hpp"

namespace Quorvel::Laz {

class Byte14Item {
public:
  Byte14Item(std::size_t n, bool version4) : layers_(n), values_(version4), n_(n) {}
  ItemLayers& layers() { return layers_; }
  void first(const std::uint8_t* record, unsigned k);
  void next(std::uint8_t* out, unsigned k);
  void next(const std::uint8_t* in, unsigned k);

private:
  struct Models {
    std::vector<SymbolModel> models; // one per byte, made on the channel's first use
  };
  std::pair<std::vector<std::uint8_t>*, Models*> switchTo(unsigned k);

  ItemLayers layers_;
  PerChannel<std::vector<std::uint8_t>, Models> values_;
  std::size_t n_;
};

} // namespace Quorvel::Laz
