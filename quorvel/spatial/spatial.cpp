// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the instances of the spatial index that the library exports.
#include "quorvel/spatial/spatial.hpp"

#include "basalt/radix_sort.hpp"

namespace Quorvel {

void sortByKey(std::vector<std::pair<std::uint64_t, std::uint32_t>>& items, int threads) {
  std::uint64_t largest = 0;
  for (const auto& item : items)
    largest |= item.first;
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
