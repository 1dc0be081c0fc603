// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: RGB14 and the near infrared of RGBNIR14.
#include "io/laz/rgb14.hpp"

#include <cstring>

namespace Quorvel::Laz {

void Rgb14Item::first(const std::uint8_t* record, unsigned k) {
  Colour v;
  std::memcpy(v.data(), record, 6);
  colours_.start(v, k);
}

void Rgb14Item::next(std::uint8_t* out, unsigned k) {
  if (!layers_.has(0)) {
    std::memcpy(out, colours_.current().data(), 6);
    return;
  }
  const auto [last, models] = colours_.switchTo(k);
  *last = decodeColour(layers_.decoder(0), *models, *last);
  std::memcpy(out, last->data(), 6);
}

void Rgb14Item::next(const std::uint8_t* in, unsigned k) {
  const auto [last, models] = colours_.switchTo(k);
  Colour v;
  std::memcpy(v.data(), in, 6);
  layers_.markUsed(0, encodeColour(layers_.encoder(0), *models, *last, v) != 0);
  *last = v;
}

void Nir14Item::first(const std::uint8_t* record, unsigned k) {
  values_.start(load<std::uint16_t>(record), k);
}

void Nir14Item::next(std::uint8_t* out, unsigned k) {
  if (!layers_.has(0)) {
    store(out, values_.current());
    return;
  }
  const auto [last, models] = values_.switchTo(k);
  Decoder& d = layers_.decoder(0);
  const unsigned sym = d.decodeSymbol(models->used);
  std::uint16_t v =
      (sym & 1) ? static_cast<std::uint8_t>(d.decodeSymbol(models->diff[0]) + (*last & 0xFF))
                : static_cast<std::uint16_t>(*last & 0xFF);
  v |= (sym & 2)
           ? static_cast<std::uint16_t>(
                 static_cast<std::uint8_t>(d.decodeSymbol(models->diff[1]) + (*last >> 8)) << 8)
           : static_cast<std::uint16_t>(*last & 0xFF00);
  *last = v;
  store(out, v);
}

void Nir14Item::next(const std::uint8_t* in, unsigned k) {
  const auto [last, models] = values_.switchTo(k);
  const auto v = load<std::uint16_t>(in);
  const unsigned sym =
      unsigned((v & 0xFF) != (*last & 0xFF)) | (unsigned((v & 0xFF00) != (*last & 0xFF00)) << 1);
  layers_.markUsed(0, sym != 0);
  Encoder& e = layers_.encoder(0);
  e.encodeSymbol(models->used, sym);
  if (sym & 1)
    e.encodeSymbol(models->diff[0], static_cast<std::uint8_t>((v & 0xFF) - (*last & 0xFF)));
  if (sym & 2)
    e.encodeSymbol(models->diff[1], static_cast<std::uint8_t>((v >> 8) - (*last >> 8)));
  *last = v;
}

} // namespace Quorvel::Laz
