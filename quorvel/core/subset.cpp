// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: subsets of point clouds: the chosen points of every fragment with all their fields.
#include "quorvel/core/core.hpp"

#include "tressel/point_cloud.hpp"

#include <algorithm>
#include <cstring>
#include <functional>
#include <stdexcept>

namespace Quorvel {

namespace {

// The points kept of one fragment: their indices, and where most points are kept and the indices
// ascend, a mark per point up to the last kept one, so that each field is copied by one pass
// over the marks (a small array read many times) rather than over the indices (a large one).
// Each field is copied in `blocks` blocks, side by side: of the indices, or of the marks, each
// block then starting at the count of points kept before it (from) and ending at its last kept
// point (end), so that no block writes where another does.
struct Kept {
  const std::vector<std::size_t>* indices = nullptr;
  std::vector<std::uint8_t> marks;
  std::size_t blocks = 1;
  std::vector<std::size_t> from, end;
};

Kept keptOf(const std::vector<std::size_t>& indices, int threads) {
  Kept kept{&indices, {}, 1, {}, {}};
  // Strictly ascending: a repeated index must be copied twice, which marks cannot say.
  const bool ascending =
      std::adjacent_find(indices.begin(), indices.end(), std::greater_equal<>()) == indices.end();
  if (indices.empty() || !ascending || indices.back() + 1 > 4 * indices.size()) {
    kept.blocks = Basalt::blocksFor(indices.size(), threads);
    return kept;
  }
  const std::size_t n = indices.back() + 1;
  kept.marks.assign(n, 0);
  for (const std::size_t i : indices)
    kept.marks[i] = 1;
  kept.blocks = Basalt::blocksFor(n, threads);
  kept.from.assign(kept.blocks + 1, 0);
  kept.end.assign(kept.blocks, 0);
  Basalt::inParts(kept.blocks, threads, [&](std::size_t b, int) {
    const std::size_t begin = n * b / kept.blocks;
    std::size_t count = 0, end = begin;
    for (std::size_t i = begin; i < n * (b + 1) / kept.blocks; ++i)
      if (kept.marks[i]) {
        ++count;
        end = i + 1;
      }
    kept.from[b + 1] = count;
    kept.end[b] = end;
  });
  for (std::size_t b = 0; b < kept.blocks; ++b)
    kept.from[b + 1] += kept.from[b];
  return kept;
}

// Copies the kept elements of Size bytes of block b; a size known to the compiler makes each
// copy one move. The marked pass writes every element and advances past the kept ones; it stops
// at the block's last kept point, so it never writes beyond the block's kept count.
template <std::size_t Size>
void copyKept(std::uint8_t* to, const std::uint8_t* from, const Kept& kept, std::size_t size,
              std::size_t b) {
  const std::size_t step = Size ? Size : size;
  if (!kept.marks.empty()) {
    std::size_t w = kept.from[b];
    for (std::size_t i = kept.marks.size() * b / kept.blocks; i < kept.end[b]; ++i) {
      std::memcpy(to + w * step, from + i * step, Size ? Size : size);
      w += kept.marks[i];
    }
    return;
  }
  const auto& indices = *kept.indices;
  for (std::size_t j = indices.size() * b / kept.blocks; j < indices.size() * (b + 1) / kept.blocks;
       ++j)
    std::memcpy(to + j * step, from + indices[j] * step, Size ? Size : size);
}

void copyKept(std::uint8_t* to, const std::uint8_t* from, const Kept& kept, std::size_t size,
              int threads) {
  Basalt::inParts(kept.blocks, threads, [&](std::size_t b, int) {
    switch (size) {
    case 1:
      return copyKept<1>(to, from, kept, size, b);
    case 2:
      return copyKept<2>(to, from, kept, size, b);
    case 4:
      return copyKept<4>(to, from, kept, size, b);
    case 8:
      return copyKept<8>(to, from, kept, size, b);
    case 24:
      return copyKept<24>(to, from, kept, size, b);
    default:
      return copyKept<0>(to, from, kept, size, b);
    }
  });
}

// Copies the kept elements of every fragment of a field into the new cloud's arrays.
void copyField(const Field& field, const std::vector<FragmentSlot>& slots,
               const std::vector<Kept>& kept, Tressel::FragmentArrays& out, const std::string& name,
               int threads) {
  const auto& type = *field.getElementType();
  const std::size_t size = type.size();
  const std::vector<std::uint8_t*> to = out.addField(name, type.name());
  for (std::size_t k = 0; k < slots.size(); ++k) {
    const auto data = field.getData(*slots[k].id);
    if (!data)
      throw std::runtime_error("field " + name + " has no values in a fragment");
    copyKept(to[k], static_cast<const std::uint8_t*>(data->elementBytes()), kept[k], size, threads);
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
  // The copies are the algorithm's last step: they take its threads.
  const int threads = maximumThreadsMinusOne();
  std::vector<FragmentSlot> kept;
  std::vector<Kept> indices;
  std::vector<std::size_t> sizes;
  for (std::size_t k = 0; k < slots.size(); ++k)
    if (!dropEmpty || !chosen[k].empty()) {
      kept.push_back(slots[k]);
      indices.push_back(keptOf(chosen[k], threads));
      sizes.push_back(chosen[k].size());
    }
  Tressel::FragmentArrays cloud(sizes);
  const auto positions = grid.CartesianPositions();
  copyField(*positions, kept, indices, cloud, Tressel::PositionsFieldName, threads);
  const auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot())
    if (field && field->getElementType() && id->Name() != Tressel::PositionsFieldName)
      copyField(*field, kept, indices, cloud, id->Name(), threads);
  auto subset = cloud.build(grid.Name());
  subset->attributes() = grid.attributes();
  renumber(*subset);
  return subset;
}

StrongPtr<Grid> keptCloud(const Grid& grid, const std::optional<KeptPoints>& kept, Messages& log) {
  if (!kept)
    return nullptr;
  try {
    return subsetOf(grid, kept->slots, kept->indices, true);
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return nullptr;
  }
}

} // namespace Quorvel
