// Quorvel framework, base: a stable radix sort by integer keys.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Basalt {

// Sorts items stably by the bits low .. high - 1 of key(item) (lower bits are not looked at),
// least significant digit first, in as few passes of digits of at most 16 bits as it takes.
// Linear time and one buffer the size of the items: for the cell keys of millions of points
// several times faster than a comparison sort.
template <class T, class Key>
void radixSort(std::vector<T>& items, int low, int high, const Key& key) {
  const int bits = high - low;
  if (bits <= 0 || items.size() < 2)
    return;
  const int passes = (bits + 15) / 16, width = (bits + passes - 1) / passes;
  const std::uint64_t mask = (std::uint64_t{1} << width) - 1;
  std::vector<T> buffer(items.size());
  std::vector<std::size_t> counts(std::size_t{1} << width);
  for (int pass = 0; pass < passes; ++pass) {
    const int shift = low + pass * width;
    std::fill(counts.begin(), counts.end(), 0);
    for (const T& item : items)
      ++counts[(std::uint64_t(key(item)) >> shift) & mask];
    std::size_t offset = 0;
    for (auto& c : counts)
      offset += std::exchange(c, offset);
    for (const T& item : items)
      buffer[counts[(std::uint64_t(key(item)) >> shift) & mask]++] = item;
    items.swap(buffer);
  }
}

} // namespace Basalt
