// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the instances of the spatial index that the library exports.
#include "quorvel/spatial/spatial.hpp"

#include "quorvel/core/parallel.hpp"

#include "basalt/radix_sort.hpp"

namespace Quorvel {

void sortByKey(KeyedPoints& items, int threads) {
  std::vector<std::uint64_t> ored(static_cast<std::size_t>(std::max(threads, 1)), 0);
  inStaticBlocks(items.size(), threads, [&](std::size_t begin, std::size_t end, std::size_t k) {
    std::uint64_t bits = 0;
    for (std::size_t i = begin; i < end; ++i)
      bits |= items[i].first;
    ored[k] = bits;
  });
  std::uint64_t largest = 0;
  for (const std::uint64_t bits : ored)
    largest |= bits;
  int bits = 0;
  while (bits < 64 && (largest >> bits) != 0)
    ++bits;
  Basalt::radixSort(
      items, 0, bits, [](const auto& item) { return item.first; }, threads);
}

} // namespace Quorvel

namespace Tarrow {

template class OcTreeStd<unsigned int, point, 2>;
template class OcTreeStd<unsigned int, point, 3>;
template class OcTreeStd<unsigned long long, point, 2>;
template class OcTreeStd<unsigned long long, point, 3>;

} // namespace Tarrow
