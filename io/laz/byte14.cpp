// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: BYTE14, extra bytes by layers.
#include "io/laz/byte14.hpp"

namespace Quorvel::Laz {

void Byte14Item::first(const std::uint8_t* record, unsigned k) {
  values_.start(std::vector<std::uint8_t>(record, record + n_), k);
}

std::pair<std::vector<std::uint8_t>*, Byte14Item::Models*> Byte14Item::switchTo(unsigned k) {
  const auto switched = values_.switchTo(k);
  if (switched.second->models.empty())
    switched.second->models.assign(n_, SymbolModel(256));
  return switched;
}

void Byte14Item::next(std::uint8_t* out, unsigned k) {
  const auto [last, models] = switchTo(k);
  for (std::size_t i = 0; i < n_; ++i) {
    if (layers_.has(i))
      (*last)[i] = static_cast<std::uint8_t>((*last)[i] +
                                             layers_.decoder(i).decodeSymbol(models->models[i]));
    out[i] = (*last)[i];
  }
}

void Byte14Item::next(const std::uint8_t* in, unsigned k) {
  const auto [last, models] = switchTo(k);
  for (std::size_t i = 0; i < n_; ++i) {
    const auto diff = static_cast<std::uint8_t>(in[i] - (*last)[i]);
    layers_.encoder(i).encodeSymbol(models->models[i], diff);
    layers_.markUsed(i, diff != 0);
    (*last)[i] = in[i];
  }
}

} // namespace Quorvel::Laz
