// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, base: a stable radix sort by integer keys.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Basalt {

// Sorts count items stably by the bits low .. high - 1 of key(item) (lower bits are not looked
// at), least significant digit first, in as few passes of digits of at most maxWidth bits as it
// takes, through `buffer` (grown to count when shorter). Linear time: for the cell keys of
// millions of points several times faster than a comparison sort. A narrow maxWidth suits many
// short ranges, whose digit counts are then cheap to clear.
template <class T, class Key>
void radixSort(T* items, std::size_t count, int low, int high, const Key& key,
               std::vector<T>& buffer, int maxWidth = 16) {
  const int bits = high - low;
  if (bits <= 0 || count < 2)
    return;
  const int passes = (bits + maxWidth - 1) / maxWidth, width = (bits + passes - 1) / passes;
  const std::uint64_t mask = (std::uint64_t{1} << width) - 1;
  if (buffer.size() < count)
    buffer.resize(count);
  std::vector<std::size_t> counts(std::size_t{1} << width);
  T* from = items;
  T* to = buffer.data();
  for (int pass = 0; pass < passes; ++pass) {
    const int shift = low + pass * width;
    std::fill(counts.begin(), counts.end(), 0);
    for (std::size_t i = 0; i < count; ++i)
      ++counts[(std::uint64_t(key(from[i])) >> shift) & mask];
    std::size_t offset = 0;
    for (auto& c : counts)
      offset += std::exchange(c, offset);
    for (std::size_t i = 0; i < count; ++i)
      to[counts[(std::uint64_t(key(from[i])) >> shift) & mask]++] = from[i];
    std::swap(from, to);
  }
  if (from != items)
    std::copy(from, from + count, items);
}

// The same over a whole vector, with a buffer of its own.
template <class T, class Key>
void radixSort(std::vector<T>& items, int low, int high, const Key& key) {
  std::vector<T> buffer;
  radixSort(items.data(), items.size(), low, high, key, buffer);
}

} // namespace Basalt
