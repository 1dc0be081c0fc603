// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: the division of the point trees, made once before the first query
// after insertions. The queries stay in trees.hpp, where they inline into their callers' loops.
#include "vantor/trees.hpp"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace Vantor {

template <class Index, int D>
BucketTree<Index, D>::BucketTree(const Basalt::StrongPtr<BoundingBox>& box, unsigned capacity)
    : capacity_(std::max(1u, capacity)) {
  if (!box || box->empty())
    return;
  box_ = *box;
  valid_ = true;
  for (int k = 0; k < D; ++k)
    side_ = std::max(side_, box->max()[k] - box->min()[k]);
  for (int k = 0; k < D; ++k) {
    origin_[k] = (box->min()[k] + box->max()[k]) / 2 - side_ / 2;
    margin_[k] = 1e-9 * (std::abs(origin_[k]) + side_);
  }
  scale_ = side_ > 0 ? double(std::uint64_t{1} << Levels) / side_ : 0.0;
}

template <class Index, int D>
void BucketTree<Index, D>::build(int threads) const {
  const std::size_t n = ids_.size();
  nodes_.clear();
  leafCells_.clear();
  if (n == 0)
    return;
  std::vector<std::size_t> leading;
  KeyedList keyed = keyedByLeadingCells(leading, threads);
  // The top of the division on this thread, down to cells of a sixteenth of a thread's share,
  // which are then divided apart on all threads and joined in the order one thread makes.
  Division top;
  top.grain = threads > 1 ? n / (16 * static_cast<std::size_t>(threads)) : 0;
  top.leading = &leading;
  top.nodes.push_back({});
  std::vector<KeyedList> scratch(static_cast<std::size_t>(std::max(threads, 1)));
  divide(top, 0, 0, n, 0, keyed, scratch[0]);
  std::vector<Division> parts(top.left.size());
  Basalt::inParts(parts.size(), threads, [&](std::size_t k, int thread) {
    const Subtree& cell = top.left[k];
    parts[k].leading = &leading;
    parts[k].nodes.push_back({});
    divide(parts[k], 0, cell.b, cell.e, cell.level, keyed,
           scratch[static_cast<std::size_t>(thread)]);
  });
  std::vector<KeyedList>().swap(scratch);
  join(top, parts, keyed, threads);
  makeTable(keyed);
  place(keyed, threads);
}

template <class Index, int D>
auto BucketTree<Index, D>::keyedByLeadingCells(std::vector<std::size_t>& starts, int threads) const
    -> KeyedList {
  const auto keyOf = [this](std::size_t i) {
    const double c[3] = {x_[i], y_[i], z_[i]};
    return cellKey(c);
  };
  return inLeadingCells<Keyed>(
      ids_.size(), keyOf,
      [](std::size_t i, std::uint64_t key) {
        return Keyed{key, i};
      },
      starts, threads);
}

template <class Index, int D>
void BucketTree<Index, D>::join(const Division& top, const std::vector<Division>& parts,
                                const KeyedList& keyed, int threads) const {
  TopWalk walk{std::vector<std::uint32_t>(top.nodes.size(), NoNode), parts, {}};
  for (std::size_t k = 0; k < top.left.size(); ++k)
    walk.partOf[top.left[k].node] = static_cast<std::uint32_t>(k);
  // Every place is written once below; a part's root takes the place of the top's node it
  // replaces.
  std::size_t nodes = top.nodes.size(), leaves = top.leaves;
  for (const Division& part : parts) {
    nodes += part.nodes.size() - 1;
    leaves += part.leaves;
  }
  nodes_.resize(nodes);
  leafCells_.resize(leaves);
  Cursor at{1, 0};
  joinNode(top, 0, 0, 0, at, keyed, &walk);
  Basalt::inParts(walk.deferred.size(), threads, [&](std::size_t k, int) {
    const Deferred& d = walk.deferred[k];
    Cursor own = d.at;
    joinNode(parts[d.part], 0, d.self, d.parent, own, keyed, nullptr);
  });
}

template <class Index, int D>
void BucketTree<Index, D>::joinNode(const Division& from, std::size_t local, std::size_t self,
                                    std::size_t parent, Cursor& at, const KeyedList& keyed,
                                    TopWalk* top) const {
  if (top && top->partOf[local] != NoNode) {
    const std::size_t k = top->partOf[local];
    top->deferred.push_back({k, self, parent, at});
    at.node += top->parts[k].nodes.size() - 1;
    at.leaf += top->parts[k].leaves;
    return;
  }
  Node node = from.nodes[local];
  if (node.leaf) {
    nodes_[self] = node;
    // Its cell: the keys sharing the first `level` digits with its entries'.
    const int shift = (Levels - node.level) * D;
    LeafCell cell{};
    cell.first = (keyed[node.first].key >> shift) << shift;
    cell.last = cell.first + ((std::uint64_t{1} << shift) - 1);
    cell.node = static_cast<std::uint32_t>(self);
    cell.parent = static_cast<std::uint32_t>(parent);
    leafCells_[at.leaf++] = cell;
    return;
  }
  const std::size_t first = at.node;
  at.node += node.count;
  for (std::size_t c = 0; c < node.count; ++c)
    joinNode(from, node.first + c, first + c, self, at, keyed, top);
  node.first = first;
  nodes_[self] = node;
}

template <class Index, int D>
void BucketTree<Index, D>::makeTable(const KeyedList& keyed) const {
  std::array<std::size_t, Levels + 1> atLevel{};
  for (const Node& node : nodes_)
    if (node.leaf)
      atLevel[node.level] += node.count;
  int median = 0;
  for (std::size_t below = 0; below + atLevel[median] <= keyed.size() / 2; ++median)
    below += atLevel[median];
  tableLevel_ = std::clamp(median - 1, 0, MaxTableBits / D);
  table_.assign(std::size_t{1} << (D * tableLevel_), NoNode);
  cellScale_ = side_ > 0 ? double(std::uint64_t{1} << tableLevel_) / side_ : 0.0;
  medianLevel_ = median;
  if (tableLevel_ > 0)
    tabulate(nodes_[0], keyed);
}

template <class Index, int D>
void BucketTree<Index, D>::tabulate(const Node& node, const KeyedList& keyed) const {
  const int shift = (Levels - tableLevel_) * D;
  const auto self = static_cast<std::uint32_t>(&node - nodes_.data());
  if (node.level >= tableLevel_) {
    const Node* first = &node;
    while (!first->leaf)
      first = &nodes_[first->first];
    table_[keyed[first->first].key >> shift] = self;
  } else if (node.leaf) {
    for (std::size_t i = node.first; i < node.first + node.count; ++i)
      table_[keyed[i].key >> shift] = self;
  } else {
    for (std::size_t c = node.first; c < node.first + node.count; ++c)
      tabulate(nodes_[c], keyed);
  }
}

template <class Index, int D>
void BucketTree<Index, D>::divide(Division& into, std::size_t self, std::size_t b, std::size_t e,
                                  int level, KeyedList& keyed, KeyedList& scratch) const {
  constexpr int Cells = 1 << D;
  std::array<std::size_t, Cells + 1> start{};
  if (self != 0 && e - b <= into.grain && e - b > capacity_ && level < Levels) {
    into.left.push_back({self, b, e, level});
    return;
  }
  for (; e - b > capacity_ && level < Levels; ++level) {
    const int shift = (Levels - 1 - level) * D;
    if (leadingStarts(into, b, e, level, keyed, start)) {
      // Entries of a leading digit are in its order already.
      bool apart = true;
      for (int c = 0; c < Cells; ++c)
        apart = apart && start[c + 1] - start[c] != e - b;
      if (!apart)
        continue; // one cell holds them all: look at the next digit
    } else {
      start.fill(0);
      for (std::size_t i = b; i < e; ++i)
        ++start[((keyed[i].key >> shift) & (Cells - 1)) + 1];
      if (std::find(start.begin(), start.end(), e - b) != start.end())
        continue; // one cell holds them all: look at the next digit
      for (int c = 0; c < Cells; ++c)
        start[c + 1] += start[c];
      toCells(keyed.data() + b, e - b, start, shift, scratch);
    }

    const std::size_t first = into.nodes.size();
    std::size_t children = 0;
    for (int c = 0; c < Cells; ++c)
      children += start[c + 1] > start[c] ? 1 : 0;
    into.nodes.resize(first + children);
    std::size_t child = first;
    for (int c = 0; c < Cells; ++c)
      if (start[c + 1] > start[c])
        divide(into, child++, b + start[c], b + start[c + 1], level + 1, keyed, scratch);
    Node& node = into.nodes[self];
    node.first = first;
    node.count = children;
    node.leaf = false;
    node.level = static_cast<unsigned char>(level);
    return;
  }
  ++into.leaves;
  Node& leaf = into.nodes[self];
  leaf.first = b;
  leaf.count = e - b;
  leaf.distinct = e - b;
  leaf.leaf = true;
  leaf.level = static_cast<unsigned char>(level);
}

template <class Index, int D>
bool BucketTree<Index, D>::leadingStarts(const Division& into, std::size_t b, std::size_t e,
                                         int level, const KeyedList& keyed,
                                         std::array<std::size_t, (1 << D) + 1>& start) {
  if (!into.leading || level >= LeadingLevels)
    return false;
  // The entries' first `level` digits, then the leading cells under each of the next digit's.
  const std::uint64_t prefix = keyed[b].key >> ((Levels - level) * D);
  const int below = (LeadingLevels - level - 1) * D;
  const std::size_t first = static_cast<std::size_t>(prefix << D) << below;
  for (std::size_t c = 0; c <= (1 << D); ++c)
    start[c] = (*into.leading)[first + (c << below)] - b;
  return start[0] == 0 && start[1 << D] == e - b;
}

template <class Index, int D>
void BucketTree<Index, D>::toCells(Keyed* items, std::size_t count,
                                   const std::array<std::size_t, (1 << D) + 1>& start, int shift,
                                   KeyedList& scratch) {
  constexpr int Cells = 1 << D;
  const auto digit = [shift](const Keyed& item) { return (item.key >> shift) & (Cells - 1); };
  if (std::is_sorted(items, items + count,
                     [&](const Keyed& u, const Keyed& v) { return digit(u) < digit(v); }))
    return;
  if (scratch.size() < count)
    scratch.resize(count);
  std::array<std::size_t, Cells> next{};
  std::copy(start.begin(), start.end() - 1, next.begin());
  for (std::size_t i = 0; i < count; ++i)
    scratch[next[digit(items[i])]++] = items[i];
  std::copy(scratch.begin(), scratch.begin() + static_cast<std::ptrdiff_t>(count), items);
}

template <class Index, int D>
void BucketTree<Index, D>::place(KeyedList& keyed, int threads) const {
  inLeafOrder(keyed, x_, threads);
  inLeafOrder(keyed, y_, threads);
  inLeafOrder(keyed, z_, threads);
  inLeafOrder(keyed, ids_, threads);
  // Leaves apart in runs of cells, each leaf written by one thread only.
  const std::size_t runs = threads > 1 ? 16 * static_cast<std::size_t>(threads) : 1;
  std::vector<std::vector<std::size_t>> orders(static_cast<std::size_t>(std::max(threads, 1)));
  Basalt::inBlocks(leafCells_.size(), runs, threads,
                   [&](std::size_t first, std::size_t last, int thread) {
                     placeLeaves(first, last, orders[static_cast<std::size_t>(thread)]);
                   });
  // Children come after their parent, so a backward pass meets them first.
  for (std::size_t j = nodes_.size(); j-- > 0;) {
    Node& node = nodes_[j];
    if (node.leaf)
      continue;
    for (int k = 0; k < D; ++k) {
      node.lo[k] = nodes_[node.first].lo[k];
      node.hi[k] = nodes_[node.first].hi[k];
    }
    for (std::size_t c = node.first + 1; c < node.first + node.count; ++c)
      for (int k = 0; k < D; ++k) {
        node.lo[k] = std::min(node.lo[k], nodes_[c].lo[k]);
        node.hi[k] = std::max(node.hi[k], nodes_[c].hi[k]);
      }
  }
}

template <class Index, int D>
void BucketTree<Index, D>::placeLeaves(std::size_t first, std::size_t last,
                                       std::vector<std::size_t>& order) const {
  for (std::size_t at = first; at < last; ++at) {
    LeafCell& cell = leafCells_[at];
    Node& leaf = nodes_[cell.node];
    const std::size_t b = leaf.first, e = b + leaf.count;
    // Of equally near entries, the first is then the one with the smallest index.
    if (!std::is_sorted(ids_.begin() + static_cast<std::ptrdiff_t>(b),
                        ids_.begin() + static_cast<std::ptrdiff_t>(e)))
      sortByIndex(b, e, order);
    if (leaf.count > capacity_)
      distinctFirst(leaf, order);
    for (int k = 0; k < D; ++k) {
      leaf.lo[k] = std::numeric_limits<double>::infinity();
      leaf.hi[k] = -std::numeric_limits<double>::infinity();
    }
    for (std::size_t i = b; i < e; ++i) {
      const double c[3] = {x_[i], y_[i], z_[i]};
      for (int k = 0; k < D; ++k) {
        leaf.lo[k] = std::min(leaf.lo[k], c[k]);
        leaf.hi[k] = std::max(leaf.hi[k], c[k]);
      }
    }
    const double c[3] = {x_[b], y_[b], z_[b]};
    const auto finest = finestCell(c);
    const auto cellBox = [&](int level, double* lo, double* hi) {
      const double width = side_ / double(std::uint64_t{1} << level);
      for (int k = 0; k < D; ++k) {
        const double start = origin_[k] + double(finest[k] >> (Levels - level)) * width;
        lo[k] = start + margin_[k];
        hi[k] = start + width - margin_[k];
      }
    };
    cellBox(leaf.level, cell.lo, cell.hi);
    cellBox(nodes_[cell.parent].level, cell.outerLo, cell.outerHi);
  }
}

template <class Index, int D>
template <class T>
void BucketTree<Index, D>::inLeafOrder(KeyedList& keyed, Basalt::ArrayVector<T>& values,
                                       int threads) {
  static_assert(sizeof(T) <= sizeof(std::uint64_t) && std::is_trivially_copyable_v<T>);
  constexpr std::size_t Ahead = 16;
  const std::size_t n = keyed.size();
  const auto parts = static_cast<std::size_t>(std::max(threads, 1));
  // Each value to the key of its place, then all back: no thread writes a value another reads.
  Basalt::inBlocks(n, parts, threads, [&](std::size_t i, std::size_t e, int) {
    for (; i < e; ++i) {
      if (i + Ahead < n)
        __builtin_prefetch(&values[keyed[i + Ahead].source]);
      std::uint64_t word = 0;
      std::memcpy(&word, &values[keyed[i].source], sizeof(T));
      keyed[i].key = word;
    }
  });
  Basalt::inBlocks(n, parts, threads, [&](std::size_t i, std::size_t e, int) {
    for (; i < e; ++i) {
      const std::uint64_t word = keyed[i].key;
      std::memcpy(&values[i], &word, sizeof(T));
    }
  });
}

template <class Index, int D>
void BucketTree<Index, D>::sortByIndex(std::size_t b, std::size_t e,
                                       std::vector<std::size_t>& order) const {
  order.resize(e - b);
  std::iota(order.begin(), order.end(), b);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t u, std::size_t v) { return ids_[u] < ids_[v]; });
  rearrange(b, order);
}

template <class Index, int D>
void BucketTree<Index, D>::distinctFirst(Node& leaf, std::vector<std::size_t>& order) const {
  const std::size_t b = leaf.first, e = b + leaf.count;
  // Positions over the tree's D axes: copies in a quadtree may differ in z.
  const auto position = [&](std::size_t i) {
    std::array<double, D> c{};
    for (int k = 0; k < D; ++k)
      c[static_cast<std::size_t>(k)] = k == 0 ? x_[i] : k == 1 ? y_[i] : z_[i];
    return c;
  };
  order.resize(e - b);
  std::iota(order.begin(), order.end(), b);
  std::stable_sort(order.begin(), order.end(),
                   [&](std::size_t u, std::size_t v) { return position(u) < position(v); });
  std::vector<bool> first(e - b);
  for (std::size_t k = 0; k < order.size(); ++k)
    first[order[k] - b] = k == 0 || position(order[k]) != position(order[k - 1]);
  order.clear();
  for (const bool wanted : {true, false})
    for (std::size_t i = b; i < e; ++i)
      if (first[i - b] == wanted)
        order.push_back(i);
  leaf.distinct = static_cast<std::size_t>(std::count(first.begin(), first.end(), true));
  rearrange(b, order);
}

template <class Index, int D>
void BucketTree<Index, D>::rearrange(std::size_t b, const std::vector<std::size_t>& order) const {
  const auto permute = [&](auto& values) {
    std::vector<std::decay_t<decltype(values[0])>> sorted;
    sorted.reserve(order.size());
    for (std::size_t i : order)
      sorted.push_back(values[i]);
    std::copy(sorted.begin(), sorted.end(), values.begin() + static_cast<std::ptrdiff_t>(b));
  };
  permute(x_);
  permute(y_);
  permute(z_);
  permute(ids_);
}

template BucketTree<unsigned, 2>::BucketTree(const Basalt::StrongPtr<BoundingBox>&, unsigned);
template void BucketTree<unsigned, 2>::build(int) const;
template BucketTree<unsigned, 3>::BucketTree(const Basalt::StrongPtr<BoundingBox>&, unsigned);
template void BucketTree<unsigned, 3>::build(int) const;
template BucketTree<unsigned long long, 2>::BucketTree(const Basalt::StrongPtr<BoundingBox>&,
                                                       unsigned);
template void BucketTree<unsigned long long, 2>::build(int) const;
template BucketTree<unsigned long long, 3>::BucketTree(const Basalt::StrongPtr<BoundingBox>&,
                                                       unsigned);
template void BucketTree<unsigned long long, 3>::build(int) const;

} // namespace Vantor
