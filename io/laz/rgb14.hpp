// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the colour items of the layered compressor, versions 3 and 4: RGB14 (one layer, coded
// as RGB12 codes it) and the near infrared of RGBNIR14 (a layer of its own after the colour's),
// each value predicted from the last of the point's scanner channel.
#pragma once

#include "io/laz/layers.hpp"

namespace Quorvel::Laz {

class Rgb14Item {
public:
  explicit Rgb14Item(bool version4) : colours_(version4) {}
  ItemLayers& layers() { return layers_; }
  void first(const std::uint8_t* record, unsigned k);
  void next(std::uint8_t* out, unsigned k);
  void next(const std::uint8_t* in, unsigned k);

private:
  ItemLayers layers_{1};
  PerChannel<Colour, ColourModels> colours_;
};

// The near infrared: a symbol tells which of its bytes changed, each coded as its difference.
class Nir14Item {
public:
  explicit Nir14Item(bool version4) : values_(version4) {}
  ItemLayers& layers() { return layers_; }
  void first(const std::uint8_t* record, unsigned k);
  void next(std::uint8_t* out, unsigned k);
  void next(const std::uint8_t* in, unsigned k);

  struct Models {
    SymbolModel used{4};
    std::array<SymbolModel, 2> diff{SymbolModel(256), SymbolModel(256)};
  };

private:
  ItemLayers layers_{1};
  PerChannel<std::uint16_t, Models> values_;
};

} // namespace Quorvel::Laz
