// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, base: a stable radix sort by integer keys.
#pragma once

#include "basalt/array_allocator.hpp"
#include "basalt/parts.hpp"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace Basalt {

// Sorts count items stably by the bits low .. high - 1 of key(item) (lower bits are not looked
// at), least significant digit first, in as few passes of digits of at most maxWidth bits as it
// takes, through `buffer` (a vector of T, grown to count when shorter). Linear time: for the
// cell keys of millions of points several times faster than a comparison sort. A narrow maxWidth
// suits many short ranges, whose digit counts are then cheap to clear. `threads` share large
// sorts; the order is the same on any number.
template <class T, class Key, class Buffer>
void radixSort(T* items, std::size_t count, int low, int high, const Key& key, Buffer& buffer,
               int maxWidth = 16, int threads = 1) {
  const int bits = high - low;
  if (bits <= 0 || count < 2)
    return;
  const int passes = (bits + maxWidth - 1) / maxWidth, width = (bits + passes - 1) / passes;
  const std::uint64_t mask = (std::uint64_t{1} << width) - 1;
  if (buffer.size() < count) {
    buffer.resize(count);
    if constexpr (std::is_trivially_copyable_v<T>)
      if (threads > 1)
        touchPages(buffer.data(), count * sizeof(T), threads);
  }
  // On several threads each counts and places a block of items of its own, its items of a digit
  // after those of the blocks before it: the order of one pass over all of them.
  const std::size_t blocks = blocksFor(count, threads);
  const std::size_t digits = std::size_t{1} << width;
  std::vector<std::size_t> counts(blocks * digits);
  T* from = items;
  T* to = buffer.data();
  for (int pass = 0; pass < passes; ++pass) {
    const int shift = low + pass * width;
    const auto digit = [&](const T& item) { return (std::uint64_t(key(item)) >> shift) & mask; };
    std::fill(counts.begin(), counts.end(), 0);
    inParts(blocks, threads, [&](std::size_t k, int) {
      std::size_t* counted = counts.data() + k * digits;
      for (std::size_t i = count * k / blocks, e = count * (k + 1) / blocks; i < e; ++i)
        ++counted[digit(from[i])];
    });
    std::size_t offset = 0;
    for (std::size_t d = 0; d < digits; ++d)
      for (std::size_t k = 0; k < blocks; ++k)
        offset += std::exchange(counts[k * digits + d], offset);
    inParts(blocks, threads, [&](std::size_t k, int) {
      std::size_t* place = counts.data() + k * digits;
      for (std::size_t i = count * k / blocks, e = count * (k + 1) / blocks; i < e; ++i)
        to[place[digit(from[i])]++] = from[i];
    });
    std::swap(from, to);
  }
  if (from != items)
    inParts(blocks, threads, [&](std::size_t k, int) {
      std::copy(from + count * k / blocks, from + count * (k + 1) / blocks,
                items + count * k / blocks);
    });
}

// The same over a whole vector, with a buffer of its own (left unwritten until the first pass
// places every item in it).
template <class Items, class Key>
void radixSort(Items& items, int low, int high, const Key& key, int threads = 1) {
  ArrayVector<typename Items::value_type> buffer;
  radixSort(items.data(), items.size(), low, high, key, buffer, 16, threads);
}

// The key of rank k (0: the smallest) among key(i) for i in [0, count), every key below
// 2^high: the value std::nth_element would put at k. Found a digit at a time from the top, each
// pass counting, in blocks on `threads` threads, the keys whose digits above agree with those
// found so far. Nothing is copied or moved, so it serves a rank among values that stay in place.
// Requires k < count.
template <class Key>
std::uint64_t radixSelect(std::size_t count, std::size_t k, int high, const Key& key,
                          int threads = 1) {
  constexpr int Width = 8;
  constexpr std::size_t Digits = std::size_t{1} << Width;
  const std::size_t blocks = blocksFor(count, threads);
  std::vector<std::size_t> counts(blocks * Digits);
  std::uint64_t found = 0, known = 0; // the digits found, and the mask of their bits
  for (int shift = high; shift > 0;) {
    const int width = std::min(Width, shift);
    shift -= width;
    const std::uint64_t digitMask = ((std::uint64_t{1} << width) - 1) << shift;
    std::fill(counts.begin(), counts.end(), 0);
    inParts(blocks, threads, [&](std::size_t b, int) {
      std::size_t* counted = counts.data() + b * Digits;
      for (std::size_t i = count * b / blocks, e = count * (b + 1) / blocks; i < e; ++i) {
        const std::uint64_t u = key(i);
        if ((u & known) == found)
          ++counted[(u & digitMask) >> shift];
      }
    });
    for (std::uint64_t d = 0; d < Digits; ++d) {
      std::size_t inDigit = 0;
      for (std::size_t b = 0; b < blocks; ++b)
        inDigit += counts[b * Digits + d];
      if (k < inDigit) {
        found |= d << shift;
        break;
      }
      k -= inDigit;
    }
    known |= digitMask;
  }
  return found;
}

// The bits of a float as an unsigned number of the same order: negative numbers below positive
// ones, -0 below +0, NaN of either sign beyond the infinities.
inline std::uint32_t orderedBits(float value) {
  const auto u = std::bit_cast<std::uint32_t>(value);
  return (u & 0x80000000u) ? ~u : u | 0x80000000u;
}

inline float fromOrderedBits(std::uint32_t bits) {
  return std::bit_cast<float>((bits & 0x80000000u) ? bits & 0x7FFFFFFFu : ~bits);
}

} // namespace Basalt
