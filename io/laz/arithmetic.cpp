// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LASzip's range decoding, models and integer decompressor.
#include "io/laz/arithmetic.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>

namespace Quorvel::Laz {

namespace {

constexpr std::uint32_t BitMaxCount = 1u << BitLengthShift;
constexpr std::uint32_t SymbolMaxCount = 1u << SymbolLengthShift;
constexpr std::uint32_t MaxSymbols = 1u << 11;

} // namespace

void BitModel::update() {
  // Counts are halved when they reach the threshold, and updates come less often over time.
  if ((bitCount += updateCycle) > BitMaxCount) {
    bitCount = (bitCount + 1) >> 1;
    bit0Count = (bit0Count + 1) >> 1;
    if (bit0Count == bitCount)
      ++bitCount;
  }
  const std::uint32_t scale = 0x80000000u / bitCount;
  bit0Probability = (bit0Count * scale) >> (31 - BitLengthShift);
  updateCycle = (5 * updateCycle) >> 2;
  if (updateCycle > 64)
    updateCycle = 64;
  bitsUntilUpdate = updateCycle;
}

SymbolModel::SymbolModel(std::uint32_t n, Computed) : symbols(n), lastSymbol(n - 1) {
  if (n > 16) {
    std::uint32_t tableBits = 3;
    while (n > (1u << (tableBits + 2)))
      ++tableBits;
    tableSize = 1u << tableBits;
    tableShift = SymbolLengthShift - tableBits;
  }
  allocate(0);
  std::fill_n(distribution, n, 0u);
  std::fill_n(symbolCount, n, 1u);
  if (tableSize != 0)
    std::fill_n(decoderTable, tableSize + 2, 0u);
  updateCycle = n;
  update();
  symbolsUntilUpdate = updateCycle = (n + 6) >> 1;
}

SymbolModel::SymbolModel(std::uint32_t n) {
  // The first model of each size, made by the first thread that needs it.
  static std::array<std::once_flag, MaxSymbols + 1> once;
  static std::array<std::unique_ptr<const SymbolModel>, MaxSymbols + 1> first;
  if (n < 2 || n > MaxSymbols)
    throw std::invalid_argument("symbol model of " + std::to_string(n) + " symbols");
  std::call_once(once[n], [n] { first[n].reset(new SymbolModel(n, Computed{})); });
  *this = *first[n];
}

SymbolModel& SymbolModel::operator=(const SymbolModel& other) {
  if (this == &other)
    return *this;
  const std::size_t had = block_ ? words() : 0;
  symbols = other.symbols;
  lastSymbol = other.lastSymbol;
  totalCount = other.totalCount;
  updateCycle = other.updateCycle;
  symbolsUntilUpdate = other.symbolsUntilUpdate;
  tableSize = other.tableSize;
  tableShift = other.tableShift;
  allocate(had);
  std::memcpy(block_.get(), other.block_.get(), words() * sizeof(std::uint32_t));
  return *this;
}

void SymbolModel::allocate(std::size_t had) {
  if (had != words())
    block_.reset(new std::uint32_t[words()]); // every word is written by the caller
  distribution = block_.get();
  symbolCount = distribution + symbols;
  decoderTable = tableSize != 0 ? symbolCount + symbols : nullptr;
}

void SymbolModel::update() {
  if ((totalCount += updateCycle) > SymbolMaxCount) {
    totalCount = 0;
    for (std::uint32_t k = 0; k < symbols; ++k)
      totalCount += (symbolCount[k] = (symbolCount[k] + 1) >> 1);
  }
  const std::uint32_t scale = 0x80000000u / totalCount;
  std::uint32_t sum = 0, s = 0;
  for (std::uint32_t k = 0; k < symbols; ++k) {
    distribution[k] = (scale * sum) >> (31 - SymbolLengthShift);
    sum += symbolCount[k];
    if (tableSize == 0)
      continue;
    const std::uint32_t w = distribution[k] >> tableShift;
    while (s < w)
      decoderTable[++s] = k - 1;
  }
  if (tableSize != 0) {
    decoderTable[0] = 0;
    while (s <= tableSize)
      decoderTable[++s] = symbols - 1;
  }
  updateCycle = (5 * updateCycle) >> 2;
  const std::uint32_t maxCycle = (symbols + 6) << 3;
  if (updateCycle > maxCycle)
    updateCycle = maxCycle;
  symbolsUntilUpdate = updateCycle;
}

bool Decoder::rawBytes(std::uint8_t* out, std::size_t n) {
  if (static_cast<std::size_t>(end_ - at_) < n)
    return false;
  std::memcpy(out, at_, n);
  at_ += n;
  return true;
}

void Decoder::start() {
  value_ = 0;
  for (int k = 0; k < 4; ++k)
    value_ = (value_ << 8) | byte();
  length_ = 0xFFFFFFFFu;
}

std::uint32_t Decoder::readShort() {
  return readBits(16);
}

std::uint32_t Decoder::readInt() {
  const std::uint32_t low = readShort();
  return (readShort() << 16) | low;
}

void Encoder::carry() {
  // The bytes already written hold the interval's base: a carry adds one to the last byte that
  // is not 0xFF, zeroing those after it.
  for (std::size_t at = out_.size(); at > start_; --at) {
    std::uint8_t& b = out_[at - 1];
    if (b != 0xFF) {
      ++b;
      return;
    }
    b = 0;
  }
}

void Encoder::encodeBit(BitModel& m, std::uint32_t bit) {
  const std::uint32_t x = m.bit0Probability * (length_ >> BitLengthShift);
  if (bit == 0) {
    length_ = x;
    ++m.bit0Count;
  } else {
    const std::uint32_t before = base_;
    base_ += x;
    length_ -= x;
    if (before > base_)
      carry();
  }
  if (length_ < MinLength)
    renormalize();
  if (--m.bitsUntilUpdate == 0)
    m.update();
}

void Encoder::encodeSymbol(SymbolModel& m, std::uint32_t symbol) {
  const std::uint32_t before = base_;
  if (symbol == m.lastSymbol) {
    const std::uint32_t x = m.distribution[symbol] * (length_ >> SymbolLengthShift);
    base_ += x;
    length_ -= x;
  } else {
    const std::uint32_t x = m.distribution[symbol] * (length_ >>= SymbolLengthShift);
    base_ += x;
    length_ = m.distribution[symbol + 1] * length_ - x;
  }
  if (before > base_)
    carry();
  if (length_ < MinLength)
    renormalize();
  ++m.symbolCount[symbol];
  if (--m.symbolsUntilUpdate == 0)
    m.update();
}

void Encoder::writeBits(std::uint32_t bits, std::uint32_t value) {
  if (bits > 19) {
    writeShort(value & 0xFFFF);
    value >>= 16;
    bits -= 16;
  }
  const std::uint32_t before = base_;
  base_ += value * (length_ >>= bits);
  if (before > base_)
    carry();
  if (length_ < MinLength)
    renormalize();
}

void Encoder::done() {
  const std::uint32_t before = base_;
  bool anotherByte = true;
  if (length_ > 2 * MinLength) {
    base_ += MinLength;
    length_ = MinLength >> 1;
  } else {
    base_ += MinLength >> 1;
    length_ = MinLength >> 9;
    anotherByte = false;
  }
  if (before > base_)
    carry();
  renormalize();
  // Zeros, so that the decoder's reads ahead stay within the bytes written.
  out_.push_back(0);
  out_.push_back(0);
  if (anotherByte)
    out_.push_back(0);
}

void IntegerCoder::encode(Encoder& e, std::int32_t prediction, std::int32_t real,
                          std::uint32_t context) {
  // The corrector, folded into [min, max] with wrapping arithmetic.
  auto c = static_cast<std::int32_t>(static_cast<std::uint32_t>(real) -
                                     static_cast<std::uint32_t>(prediction));
  if (c < correctorMin_)
    c = static_cast<std::int32_t>(static_cast<std::uint32_t>(c) + correctorRange_);
  else if (c > correctorMax_)
    c = static_cast<std::int32_t>(static_cast<std::uint32_t>(c) - correctorRange_);
  // The tightest interval [-(2^k - 1), 2^k] that holds c.
  std::uint32_t c1 =
      c <= 0 ? 0u - static_cast<std::uint32_t>(c) : static_cast<std::uint32_t>(c) - 1;
  for (k_ = 0; c1 != 0; ++k_)
    c1 >>= 1;
  e.encodeSymbol(bits_[context], k_);
  if (k_ == 0)
    return e.encodeBit(corrector0_, static_cast<std::uint32_t>(c));
  if (k_ == 32)
    return; // only the smallest integer needs all 32 bits: k says it all
  // Into [0, 2^k): the negative half below 2^(k-1), the positive half above.
  const std::uint32_t v =
      c < 0 ? static_cast<std::uint32_t>(c) + ((1u << k_) - 1) : static_cast<std::uint32_t>(c) - 1;
  if (k_ <= bitsHigh_)
    return e.encodeSymbol(correctors_[k_ - 1], v);
  const std::uint32_t low = k_ - bitsHigh_;
  e.encodeSymbol(correctors_[k_ - 1], v >> low);
  e.writeBits(low, v & ((1u << low) - 1));
}

IntegerCoder::IntegerCoder(std::uint32_t bits, std::uint32_t contexts, std::uint32_t bitsHigh,
                           std::uint32_t range)
    : bitsHigh_(bitsHigh) {
  if (range != 0) {
    correctorRange_ = range;
    for (std::uint32_t r = range; r != 0; r >>= 1)
      ++correctorBits_;
    if (correctorRange_ == (1u << (correctorBits_ - 1)))
      --correctorBits_;
    correctorMin_ = -static_cast<std::int32_t>(correctorRange_ / 2);
  } else if (bits != 0 && bits < 32) {
    correctorBits_ = bits;
    correctorRange_ = 1u << bits;
    correctorMin_ = -static_cast<std::int32_t>(correctorRange_ / 2);
  } else {
    correctorBits_ = 32;
    correctorRange_ = 0;
    correctorMin_ = std::numeric_limits<std::int32_t>::min();
  }
  correctorMax_ = correctorRange_ == 0
                      ? std::numeric_limits<std::int32_t>::max()
                      : static_cast<std::int32_t>(correctorMin_ + correctorRange_ - 1);
  bits_.assign(contexts, SymbolModel(correctorBits_ + 1));
  for (std::uint32_t i = 1; i <= correctorBits_; ++i)
    correctors_.emplace_back(i <= bitsHigh_ ? 1u << i : 1u << bitsHigh_);
}

} // namespace Quorvel::Laz
