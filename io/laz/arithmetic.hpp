// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the entropy decoding of LASzip-compressed point data: a 32-bit range decoder over one
// chunk's bytes, adaptive bit and symbol models, and the integer decompressor that undoes the
// corrector coding of predicted values. The models and their update rules follow the LASzip
// format, so that every record decodes to the bytes it was encoded from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Quorvel::Laz {

// Probabilities of bits are kept in 13 bits, the distributions of symbols in 15.
constexpr std::uint32_t BitLengthShift = 13;
constexpr std::uint32_t SymbolLengthShift = 15;

// An adaptive model of one binary decision.
class BitModel {
public:
  BitModel() = default;
  void update();

  std::uint32_t updateCycle = 4, bitsUntilUpdate = 4;
  std::uint32_t bit0Probability = 1u << 12, bit0Count = 1, bitCount = 2;
};

// An adaptive model of symbols 0 to symbols - 1, with a table that speeds up decoding of
// alphabets above 16 symbols. Its arrays lie in one block of its own. A model starts as a copy of
// the first model of its size, made once a process: every chunk starts all of its models afresh
// (over two hundred for a LAS 1.4 point, most of 256 symbols), and a chunk of a few dozen points,
// as COPC's smallest nodes hold, would otherwise spend most of its time computing them.
class SymbolModel {
public:
  explicit SymbolModel(std::uint32_t symbols);
  SymbolModel(const SymbolModel& other) { *this = other; }
  SymbolModel& operator=(const SymbolModel& other);
  SymbolModel(SymbolModel&&) noexcept = default;
  SymbolModel& operator=(SymbolModel&&) noexcept = default;
  ~SymbolModel() = default;
  void update();

  std::uint32_t symbols = 0, lastSymbol = 0;
  std::uint32_t* distribution = nullptr;
  std::uint32_t* symbolCount = nullptr;
  std::uint32_t* decoderTable = nullptr; // tableSize + 2 entries, none without a table
  std::uint32_t totalCount = 0, updateCycle = 0, symbolsUntilUpdate = 0;
  std::uint32_t tableSize = 0, tableShift = 0;

private:
  struct Computed {};
  SymbolModel(std::uint32_t symbols, Computed);
  // The arrays placed in the block, made anew unless it held `had` words already.
  void allocate(std::size_t had);
  std::size_t words() const { return 2 * std::size_t(symbols) + (tableSize ? tableSize + 2 : 0); }

  std::unique_ptr<std::uint32_t[]> block_;
};

// The range decoder over the bytes [data, data + size). Reading past the end yields zeros and is
// remembered, as are bytes no encoder could have written: overran() then tells that the bytes did
// not hold what was decoded.
class Decoder {
public:
  Decoder(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

  // Takes n bytes as they are (the raw first point of a chunk); false when fewer remain.
  bool rawBytes(std::uint8_t* out, std::size_t n);
  // Starts arithmetic decoding after the raw bytes.
  void start();

  std::uint32_t decodeBit(BitModel& m);
  std::uint32_t decodeSymbol(SymbolModel& m);
  std::uint32_t readBits(std::uint32_t bits);
  std::uint32_t readShort();
  std::uint32_t readInt();

  bool overran() const { return overran_; }
  // The bytes not read yet: once every point is decoded, at most one byte of the encoder's end
  // is left; more belong to points that were not counted.
  std::size_t unread() const { return static_cast<std::size_t>(end_ - at_); }

private:
  std::uint8_t byte() {
    if (at_ < end_)
      return *at_++;
    overran_ = true;
    return 0;
  }
  void renormalize() {
    do
      value_ = (value_ << 8) | byte();
    while ((length_ <<= 8) < MinLength);
  }

  static constexpr std::uint32_t MinLength = 0x01000000u;
  const std::uint8_t* at_;
  const std::uint8_t* end_;
  std::uint32_t value_ = 0, length_ = 0xFFFFFFFFu;
  bool overran_ = false;
};

// The range encoder: appends to a byte vector (a carry walks back over the bytes written).
class Encoder {
public:
  explicit Encoder(std::vector<std::uint8_t>& out) : out_(out), start_(out.size()) {}

  void encodeBit(BitModel& m, std::uint32_t bit);
  void encodeSymbol(SymbolModel& m, std::uint32_t symbol);
  void writeBits(std::uint32_t bits, std::uint32_t value);
  void writeShort(std::uint32_t value) { writeBits(16, value & 0xFFFF); }
  void writeInt(std::uint32_t value) {
    writeShort(value & 0xFFFF);
    writeShort(value >> 16);
  }
  // Writes the last bytes, so that a decoder reads exactly what was written.
  void done();

private:
  void carry();
  void renormalize() {
    do {
      out_.push_back(static_cast<std::uint8_t>(base_ >> 24));
      base_ <<= 8;
    } while ((length_ <<= 8) < MinLength);
  }

  static constexpr std::uint32_t MinLength = 0x01000000u;
  std::vector<std::uint8_t>& out_;
  std::size_t start_; // the first byte of this stream in out_
  std::uint32_t base_ = 0, length_ = 0xFFFFFFFFu;
};

// The corrector coding of integers: a value is its prediction plus a corrector whose magnitude
// class k is coded with a per-context symbol model and whose bits follow. One object codes one
// way, encoding or decoding, and keeps the models both sides keep alike.
class IntegerCoder {
public:
  IntegerCoder(std::uint32_t bits, std::uint32_t contexts, std::uint32_t bitsHigh = 8,
               std::uint32_t range = 0);

  std::int32_t decode(Decoder& d, std::int32_t prediction, std::uint32_t context);
  void encode(Encoder& e, std::int32_t prediction, std::int32_t real, std::uint32_t context);
  // The magnitude class of the last corrector decoded.
  std::uint32_t k() const { return k_; }

private:
  std::int32_t corrector(Decoder& d, SymbolModel& bits);

  std::uint32_t bitsHigh_, correctorBits_ = 0, correctorRange_ = 0;
  std::int32_t correctorMin_ = 0, correctorMax_ = 0;
  std::uint32_t k_ = 0;
  std::vector<SymbolModel> bits_;
  BitModel corrector0_;
  std::vector<SymbolModel> correctors_;
};

// Decoding runs for every value of every point: defined here so that the item decoders inline it.

inline std::uint32_t Decoder::decodeBit(BitModel& m) {
  const std::uint32_t x = m.bit0Probability * (length_ >> BitLengthShift);
  const std::uint32_t bit = value_ >= x;
  if (bit == 0) {
    length_ = x;
    ++m.bit0Count;
  } else {
    value_ -= x;
    length_ -= x;
  }
  if (length_ < MinLength)
    renormalize();
  if (--m.bitsUntilUpdate == 0)
    m.update();
  return bit;
}

inline std::uint32_t Decoder::decodeSymbol(SymbolModel& m) {
  std::uint32_t symbol, x, y = length_;
  if (m.tableSize != 0) {
    const std::uint32_t dv = value_ / (length_ >>= SymbolLengthShift);
    std::uint32_t t = dv >> m.tableShift;
    if (t > m.tableSize) { // only bytes that no encoder wrote put the value beyond the range
      overran_ = true;
      t = m.tableSize;
    }
    symbol = m.decoderTable[t];
    std::uint32_t n = m.decoderTable[t + 1] + 1;
    while (n > symbol + 1) { // bisection within the table's bracket
      const std::uint32_t k = (symbol + n) >> 1;
      const bool above = m.distribution[k] > dv; // chosen without a branch: it is a coin toss
      n = above ? k : n;
      symbol = above ? symbol : k;
    }
    x = m.distribution[symbol] * length_;
    if (symbol != m.lastSymbol)
      y = m.distribution[symbol + 1] * length_;
  } else {
    x = symbol = 0;
    length_ >>= SymbolLengthShift;
    std::uint32_t n = m.symbols, k = n >> 1;
    do {
      const std::uint32_t z = length_ * m.distribution[k];
      if (z > value_) {
        n = k;
        y = z;
      } else {
        symbol = k;
        x = z;
      }
    } while ((k = (symbol + n) >> 1) != symbol);
  }
  value_ -= x;
  length_ = y - x;
  if (length_ < MinLength)
    renormalize();
  ++m.symbolCount[symbol];
  if (--m.symbolsUntilUpdate == 0)
    m.update();
  return symbol;
}

inline std::uint32_t Decoder::readBits(std::uint32_t bits) {
  if (bits > 19) {
    const std::uint32_t low = readShort();
    return (readBits(bits - 16) << 16) | low;
  }
  const std::uint32_t symbol = value_ / (length_ >>= bits);
  value_ -= length_ * symbol;
  if (length_ < MinLength)
    renormalize();
  return symbol;
}

inline std::int32_t IntegerCoder::decode(Decoder& d, std::int32_t prediction,
                                         std::uint32_t context) {
  // Wrapping arithmetic, as the encoder's: a corrector may carry a value around the range.
  std::uint32_t real = static_cast<std::uint32_t>(prediction) +
                       static_cast<std::uint32_t>(corrector(d, bits_[context]));
  const auto signedReal = static_cast<std::int32_t>(real);
  if (signedReal < 0)
    real += correctorRange_;
  else if (correctorRange_ != 0 && real >= correctorRange_)
    real -= correctorRange_;
  return static_cast<std::int32_t>(real);
}

inline std::int32_t IntegerCoder::corrector(Decoder& d, SymbolModel& bits) {
  k_ = d.decodeSymbol(bits);
  if (k_ == 0)
    return static_cast<std::int32_t>(d.decodeBit(corrector0_));
  if (k_ >= 32)
    return correctorMin_;
  std::int32_t c;
  if (k_ <= bitsHigh_)
    c = static_cast<std::int32_t>(d.decodeSymbol(correctors_[k_ - 1]));
  else {
    const std::uint32_t low = k_ - bitsHigh_;
    c = static_cast<std::int32_t>(d.decodeSymbol(correctors_[k_ - 1]));
    c = static_cast<std::int32_t>((static_cast<std::uint32_t>(c) << low) | d.readBits(low));
  }
  // Back from [0, 2^k) to the corrector's interval: [2^(k-1), 2^k) holds 2^(k-1) + 1 .. 2^k,
  // [0, 2^(k-1)) holds -(2^k - 1) .. -2^(k-1).
  if (c >= (std::int32_t(1) << (k_ - 1)))
    return c + 1;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(c) - ((1u << k_) - 1));
}

} // namespace Quorvel::Laz
