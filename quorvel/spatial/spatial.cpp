// Quorvel: the instances of the spatial index that the library exports.
#include "quorvel/spatial/spatial.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Quorvel {

namespace {

// Spreads the low 32 bits of v to the even bit positions.
std::uint64_t spreadBits(std::uint64_t v) {
  v &= 0xffffffffULL;
  v = (v | (v << 16)) & 0x0000ffff0000ffffULL;
  v = (v | (v << 8)) & 0x00ff00ff00ff00ffULL;
  v = (v | (v << 4)) & 0x0f0f0f0f0f0f0f0fULL;
  v = (v | (v << 2)) & 0x3333333333333333ULL;
  v = (v | (v << 1)) & 0x5555555555555555ULL;
  return v;
}

} // namespace

void sortByKey(std::vector<std::pair<std::uint64_t, std::uint32_t>>& items) {
  std::uint64_t largest = 0;
  for (const auto& item : items)
    largest |= item.first;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> buffer(items.size());
  std::vector<std::size_t> counts(1 << 16);
  for (int shift = 0; shift < 64 && (largest >> shift) != 0; shift += 16) {
    std::fill(counts.begin(), counts.end(), 0);
    for (const auto& item : items)
      ++counts[(item.first >> shift) & 0xffff];
    std::size_t offset = 0;
    for (auto& c : counts)
      offset += std::exchange(c, offset);
    for (const auto& item : items)
      buffer[counts[(item.first >> shift) & 0xffff]++] = item;
    items.swap(buffer);
  }
}

std::vector<std::uint32_t>
spatialOrder(const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
             const Vantor::BoundingBox& box) {
  const std::size_t n = positions.size();
  std::vector<std::pair<std::uint64_t, std::uint32_t>> keyed(n);
  const double width = std::max(box.max().x - box.min().x, box.max().y - box.min().y);
  // 23 bits per axis: the keys fit 46 bits, and points that cannot be placed take a larger key,
  // so the radix sort needs three passes.
  constexpr double cells = 8388607.0;
  constexpr std::uint64_t unplaced = (std::uint64_t{1} << 47) - 1;
  const double scale = !box.empty() && width > 0 ? cells / width : 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const auto& p = positions[i];
    const double u = (p.x - box.min().x) * scale, v = (p.y - box.min().y) * scale;
    const bool usable = u >= 0 && v >= 0 && u <= cells && v <= cells;
    const std::uint64_t key = usable ? spreadBits(static_cast<std::uint64_t>(u)) |
                                           (spreadBits(static_cast<std::uint64_t>(v)) << 1)
                                     : unplaced;
    keyed[i] = {key, static_cast<std::uint32_t>(i)};
  }
  sortByKey(keyed);
  std::vector<std::uint32_t> order(n);
  for (std::size_t i = 0; i < n; ++i)
    order[i] = keyed[i].second;
  return order;
}

} // namespace Quorvel

namespace Tarrow {

template class OcTreeStd<unsigned int, point, 2>;
template class OcTreeStd<unsigned int, point, 3>;
template class OcTreeStd<unsigned long long, point, 2>;
template class OcTreeStd<unsigned long long, point, 3>;

} // namespace Tarrow
