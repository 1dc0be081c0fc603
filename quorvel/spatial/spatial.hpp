// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the spatial index and the neighbourhood rules every algorithm shares.
//
// Neighbourhood rules, the same for every tree and query of the library:
//  - distances are compared squared, over x, y and z for 3-D trees and over x and y for 2-D
//    trees (which store z but ignore it);
//  - a radius query is inclusive (squared distance <= radius^2) and finds the query point itself
//    when it is in the tree;
//  - results come in tree order (children 0 to 2^D - 1, leaves in insertion order); the ordered
//    forms of OcTreeStd sort by squared distance and keep tree order among equal distances;
//  - a nearest-neighbour query is a nearest-neighbour search bounded by the radius; among
//    equally near points the smallest index wins (the framework trees order their maps so);
//  - a box query is half-open (lo <= p < hi), the rectangle query of the planimetric trees
//    closed (lo <= p <= hi);
//  - a point outside a tree's box, or with a NaN coordinate, is refused with the line
//    "OcTreeStd::insert() ERROR out of bounds!   ..." and the caller's loop goes on;
//  - any number of identical points may be inserted: a leaf that cannot be divided any more
//    holds them beyond its capacity.
#pragma once

#include "tarrow/oc_tree_std.hpp"
#include "tressel/trees.hpp"
#include "vantor/trees.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Quorvel {

// (key, point index) pairs, in an array whose count-only growth leaves them unwritten.
using KeyedPoints = Basalt::ArrayVector<std::pair<std::uint64_t, std::uint32_t>>;

// Sorts (key, index) pairs by key, stably, with a radix sort over the bits that the largest key
// uses, on `threads` threads (the same order on any number).
void sortByKey(KeyedPoints& items, int threads = 1);

// Spreads the low 21 bits of v to every third bit: one axis of a Morton (z-order) code, whose
// order keeps points near each other in space near each other in memory.
constexpr std::uint64_t spreadBits(std::uint64_t v) {
  v &= 0x1FFFFF;
  v = (v | v << 32) & 0x1F00000000FFFFull;
  v = (v | v << 16) & 0x1F0000FF0000FFull;
  v = (v | v << 8) & 0x100F00F00F00F00Full;
  v = (v | v << 4) & 0x10C30C30C30C30C3ull;
  v = (v | v << 2) & 0x1249249249249249ull;
  return v;
}

// The leaves of a tree (Tarrow::OcTreeStd) in tree order, as the lists of their indices, cut into
// runs of consecutive leaves that hold near-equal numbers of entries: run k is the leaves from
// cut[k] to cut[k + 1]. Points visited in this order lie near each other, so consecutive queries
// touch the same nodes and points; threads that take whole runs need no list of every point in
// tree order, which one thread would have to write.
template <class Index>
struct LeafRuns {
  std::vector<std::span<const Index>> leaves;
  std::vector<std::size_t> cut;

  template <class Tree>
  LeafRuns(const Tree& tree, std::size_t runs) {
    std::size_t total = 0;
    tree.forEachLeaf([&](const auto&, const auto& indices) {
      leaves.emplace_back(indices);
      total += indices.size();
    });
    runs = std::max<std::size_t>(runs, 1);
    cut.assign(runs + 1, leaves.size());
    cut[0] = 0;
    std::size_t before = 0, run = 1;
    for (std::size_t k = 0; k < leaves.size(); before += leaves[k++].size())
      while (run < runs && before >= total * run / runs)
        cut[run++] = k;
  }
  std::size_t runs() const { return cut.size() - 1; }
  // f(index) for every entry of run k, in tree order.
  template <class F>
  void forEachIn(std::size_t k, const F& f) const {
    for (std::size_t leaf = cut[k]; leaf < cut[k + 1]; ++leaf)
      for (const Index& i : leaves[leaf])
        f(i);
  }
};

// Copies of one position among the points an algorithm visits. Where a point's answer depends
// on its position alone (the same neighbours, the same arithmetic), a run of copies is answered
// once: `computing` lists the entries that compute, in visit order, and `copies` pairs every
// other entry with the one whose answer it takes. Positions match bit for bit in x, y and z.
struct CopyPlan {
  std::vector<std::size_t> computing;
  std::vector<std::pair<std::size_t, std::size_t>> copies;
  std::vector<std::size_t> order; // scratch of separateCopies
  std::vector<std::size_t> first; // likewise

  void clear() {
    computing.clear();
    copies.clear();
  }
};

// The bits of a position, for comparing copies.
inline std::array<std::uint64_t, 3> positionBits(const Vantor::PhysicalSpace::point& p) {
  return {std::bit_cast<std::uint64_t>(p.x), std::bit_cast<std::uint64_t>(p.y),
          std::bit_cast<std::uint64_t>(p.z)};
}

// Adds the entries [begin, end) of a group (a leaf, a grid cell: copies of a position always
// share one) to plan: positionOf(entry) gives an entry's position. A group of at most `few`
// entries goes to `computing` whole, as sorting it would cost more than its copies do.
template <class Entry, class PositionOf>
void separateCopies(const Entry* begin, const Entry* end, std::size_t few,
                    const PositionOf& positionOf, CopyPlan& plan) {
  const auto count = static_cast<std::size_t>(end - begin);
  if (count <= few) {
    plan.computing.insert(plan.computing.end(), begin, end);
    return;
  }
  plan.order.resize(count);
  for (std::size_t k = 0; k < count; ++k)
    plan.order[k] = k;
  std::stable_sort(plan.order.begin(), plan.order.end(), [&](std::size_t a, std::size_t b) {
    return positionBits(positionOf(begin[a])) < positionBits(positionOf(begin[b]));
  });
  plan.first.resize(count);
  for (std::size_t k = 0; k < count; ++k) {
    const std::size_t at = plan.order[k];
    const bool same = k > 0 && positionBits(positionOf(begin[at])) ==
                                   positionBits(positionOf(begin[plan.order[k - 1]]));
    plan.first[at] = same ? plan.first[plan.order[k - 1]] : at;
  }
  for (std::size_t k = 0; k < count; ++k) {
    if (plan.first[k] == k)
      plan.computing.push_back(begin[k]);
    else
      plan.copies.emplace_back(begin[k], begin[plan.first[k]]);
  }
}

// Answers remembered by a key of N words (a position's bits and what else decides the answer),
// for the loops that meet copies in any order: a thread's own table, filled only where an
// answer was dear (a large neighbourhood), so that other clouds pay nothing but an empty check.
template <std::size_t N, class Value>
class CopyAnswers {
public:
  using Key = std::array<std::uint64_t, N>;

  const Value* find(const Key& key) const {
    if (known_.empty())
      return nullptr;
    const auto it = known_.find(key);
    return it == known_.end() ? nullptr : &it->second;
  }
  void remember(const Key& key, const Value& value) { known_.emplace(key, value); }

private:
  struct Hash {
    std::size_t operator()(const Key& key) const {
      std::uint64_t h = 0;
      for (const std::uint64_t v : key)
        h = (h ^ v) * 0x9E3779B97F4A7C15ull;
      return static_cast<std::size_t>(h ^ (h >> 29));
    }
  };
  std::unordered_map<Key, Value, Hash> known_;
};

} // namespace Quorvel

namespace Tarrow {

using Vantor::PhysicalSpace::point;

extern template class OcTreeStd<unsigned int, point, 2>;
extern template class OcTreeStd<unsigned int, point, 3>;
extern template class OcTreeStd<unsigned long long, point, 2>;
extern template class OcTreeStd<unsigned long long, point, 3>;

} // namespace Tarrow
