// Quorvel: subsets of point clouds: the chosen points of every fragment with all their fields.
#include "quorvel/core/core.hpp"

#include "tressel/PointCloud.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Quorvel {

namespace {

// Gathers elements of Size bytes; a size known to the compiler lets each copy be one move.
template <std::size_t Size>
void gather(std::uint8_t* to, const std::uint8_t* from, const std::vector<std::size_t>& kept) {
  for (std::size_t j = 0; j < kept.size(); ++j)
    std::memcpy(to + j * Size, from + kept[j] * Size, Size);
}

void gather(std::uint8_t* to, const std::uint8_t* from, const std::vector<std::size_t>& kept,
            std::size_t size) {
  switch (size) {
  case 1:
    return gather<1>(to, from, kept);
  case 2:
    return gather<2>(to, from, kept);
  case 4:
    return gather<4>(to, from, kept);
  case 8:
    return gather<8>(to, from, kept);
  case 24:
    return gather<24>(to, from, kept);
  default:
    for (std::size_t j = 0; j < kept.size(); ++j)
      std::memcpy(to + j * size, from + kept[j] * size, size);
  }
}

// Copies the kept elements of every fragment of a field into the new cloud's arrays.
void copyField(const Field& field, const std::vector<FragmentSlot>& slots,
               const std::vector<std::vector<std::size_t>>& kept, Tressel::FragmentArrays& out,
               const std::string& name) {
  const auto& type = *field.getElementType();
  const std::size_t size = type.size();
  const std::vector<std::uint8_t*> to = out.addField(name, type.name());
  for (std::size_t k = 0; k < slots.size(); ++k) {
    const auto data = field.getData(*slots[k].id);
    if (!data)
      throw std::runtime_error("field " + name + " has no values in a fragment");
    const auto* from = static_cast<const std::uint8_t*>(data->elementBytes());
    gather(to[k], from, kept[k], size);
  }
}

// A tiled read numbers the points by their place in the file; the kept ones are numbered again,
// 0 up in the same order, so that the file order survives and has no gaps.
void renumber(Tressel::Grid& grid) {
  auto field = grid(Tressel::StandardCartesianChart3D, "PointIndex");
  if (!field || field->getElementType() != &Tressel::TresselType<unsigned long long>())
    return;
  std::vector<unsigned long long*> arrays;
  std::vector<std::size_t> sizes;
  std::vector<unsigned long long> all;
  for (const FragmentSlot& slot : fragmentsOf(*field))
    if (auto a = writableFragmentArray<unsigned long long>(*field, slot)) {
      arrays.push_back(a->data());
      sizes.push_back(a->size());
      all.insert(all.end(), a->data(), a->data() + a->size());
    }
  std::sort(all.begin(), all.end());
  for (std::size_t k = 0; k < arrays.size(); ++k)
    for (std::size_t j = 0; j < sizes[k]; ++j)
      arrays[k][j] = static_cast<unsigned long long>(
          std::lower_bound(all.begin(), all.end(), arrays[k][j]) - all.begin());
}

} // namespace

StrongPtr<Grid> subsetOf(const Grid& grid, const std::vector<FragmentSlot>& slots,
                         const std::vector<std::vector<std::size_t>>& chosen, bool dropEmpty) {
  std::vector<FragmentSlot> kept;
  std::vector<std::vector<std::size_t>> indices;
  std::vector<std::size_t> sizes;
  for (std::size_t k = 0; k < slots.size(); ++k)
    if (!dropEmpty || !chosen[k].empty()) {
      kept.push_back(slots[k]);
      indices.push_back(chosen[k]);
      sizes.push_back(chosen[k].size());
    }
  Tressel::FragmentArrays cloud(sizes);
  const auto positions = grid.CartesianPositions();
  copyField(*positions, kept, indices, cloud, Tressel::PositionsFieldName);
  const auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot())
    if (field && field->getElementType() && id->Name() != Tressel::PositionsFieldName)
      copyField(*field, kept, indices, cloud, id->Name());
  auto subset = cloud.build(grid.Name());
  subset->attributes() = grid.attributes();
  renumber(*subset);
  return subset;
}

} // namespace Quorvel
