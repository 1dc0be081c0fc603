// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: the point trees of the algorithms, 3-D (OcTree) and planimetric
// (QuadTree), keyed by point index.
#pragma once

#include "basalt/array_allocator.hpp"
#include "basalt/parts.hpp"
#include "basalt/radix_sort.hpp"
#include "basalt/strong_ptr.hpp"
#include "vantor/bounding_box.hpp"
#include "vantor/tree_base.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Vantor {

// A bucket tree over a bounding box: distances are squared, over x, y and z (D = 3) or x and y
// (D = 2), the radius is inclusive, and the vector forms list entries in tree order. A tree made
// from an empty box pointer or an empty box is not valid: it takes no points and finds nothing.
// Points outside the box, or with a NaN coordinate, are refused with the message of the library's
// bucket tree ("OcTreeStd::insert() ERROR out of bounds! ..."). Nearest-neighbour answers break
// ties by the smallest index, whatever the tree's shape.
//
// Insertions are collected; the first query after them divides the entries once, like an octree
// (a quadtree for D = 2) over a cube about the box: a cell with more than `capacity` entries
// splits into 2^D children, down to cells 2^-21 of the cube's side, which hold any number (so
// duplicates cannot split without end). A cube keeps cells cube-shaped where a flat airborne
// box would be cut into thin slabs. Every node keeps the tight box of its entries, and leaves
// hold their coordinates in contiguous arrays, in index order: queries prune by where the
// points really are, scan a leaf without following pointers or branches, and find the smallest
// of equally near indices first. A table of the cells one level above most leaves lets a
// search start there instead of at the root; findNearestEach answers many points in the tree's
// own order, most of them from the leaf of their own cell.
//
// Thread-safety: insert from one thread; afterwards const queries from many threads at once (the
// first of them builds the division under a lock, the others wait for it). prepare(threads)
// builds it on several threads instead: the same nodes in the same order as one thread makes.
template <class Index, int D>
class BucketTree : public Basalt::ReferenceBase {
  static_assert(D == 2 || D == 3, "the tree has two or three dimensions");
  static_assert(
      std::is_same_v<Index, unsigned> || std::is_same_v<Index, unsigned long long>,
      "the tree is built in vantor/trees.cpp for unsigned and unsigned long long indices");

public:
  using point = PhysicalSpace::point;

  // A nearest-neighbour answer: the entry's index and point, and its squared distance.
  struct Neighbour {
    Index index{};
    point position{};
    double squared = 0.0;
  };

  BucketTree(const Basalt::StrongPtr<BoundingBox>& box, unsigned capacity);
  BucketTree(const BucketTree&) = delete;
  BucketTree& operator=(const BucketTree&) = delete;

  bool valid() const { return valid_; }

  // Stores p under index; a point outside the box is refused with the tree's message.
  bool insert(const point& p, const Index& index) {
    if (!valid_ || !acceptsPoint<D>(p, box_.min(), box_.max()))
      return false;
    x_.push_back(p.x);
    y_.push_back(p.y);
    z_.push_back(p.z);
    ids_.push_back(index);
    ++count_;
    built_.store(false, std::memory_order_relaxed);
    return true;
  }

  // Stores pointOf(i) under index i for every i in [0, n) that keep(i) accepts, as n insertions
  // in index order would (a point outside the box refused with the tree's message), written on
  // `threads` threads: each block of indices counts the points it stores, then writes them at
  // their place.
  template <class Keep, class PointOf>
  void insertEach(std::size_t n, int threads, const Keep& keep, const PointOf& pointOf) {
    if (!valid_)
      return;
    const std::size_t first = ids_.size();
    std::atomic<bool> refused{false};
    const auto stored = [&](std::size_t i) {
      if (!keep(i))
        return false;
      if (axisOutside<D>(pointOf(i), box_.min(), box_.max()) == D)
        return true;
      refused.store(true, std::memory_order_relaxed);
      return false;
    };
    count_ += Basalt::packInBlocks(
        n, Basalt::blocksFor(n, threads), threads, stored,
        [&](std::size_t count) {
          for (auto* axis : {&x_, &y_, &z_})
            axis->resize(first + count); // each entry written once, below
          ids_.resize(first + count);
        },
        [&](std::size_t i, std::size_t at) {
          const point p = pointOf(i);
          x_[first + at] = p.x;
          y_[first + at] = p.y;
          z_[first + at] = p.z;
          ids_[first + at] = static_cast<Index>(i);
        });
    if (refused.load()) // the messages of the points refused, in index order
      for (std::size_t i = 0; i < n; ++i)
        if (keep(i))
          acceptsPoint<D>(pointOf(i), box_.min(), box_.max());
    built_.store(false, std::memory_order_relaxed);
  }

  // Room for n more insertions, so that filling a large tree does not copy what it holds.
  void reserve(std::size_t n) {
    x_.reserve(x_.size() + n);
    y_.reserve(y_.size() + n);
    z_.reserve(z_.size() + n);
    ids_.reserve(ids_.size() + n);
  }

  // Number of entries.
  std::size_t size() const { return count_; }

  // Divides the entries now instead of at the first query, so that a caller can build the tree
  // before it sets up the queries, and the two never hold their working memory at once; on
  // `threads` threads, with the tree one thread would make (its order decides ties).
  void prepare(int threads = 1) const { prepared(threads); }

  // Every entry within radius of q, keyed by squared distance, nearest first; equally near
  // entries by ascending index, so the first entry is the one findNearest gives.
  void getRange(const point& q, double radius, std::multimap<double, Index>& out) const {
    std::vector<std::pair<double, Index>> found;
    within(q, radius, [&](std::size_t j, double d2) { found.emplace_back(d2, ids_[j]); });
    std::sort(found.begin(), found.end());
    for (const auto& entry : found)
      out.insert(out.end(), entry);
  }
  // Every entry within radius of q, appended in tree order.
  void getRange(const point& q, double radius, std::vector<Index>& out) const {
    within(q, radius, [&](std::size_t j, double) { out.push_back(ids_[j]); });
  }
  // How many entries lie within radius of q: the size of getRange's list, without the list.
  std::size_t countWithin(const point& q, double radius) const {
    std::size_t count = 0;
    within(q, radius, [&](std::size_t, double) { ++count; });
    return count;
  }

  // The squared distances of the k entries nearest q, nearest first, into squared (room for k);
  // returns how many it wrote: k, or every entry when the tree holds fewer. Each copy of a
  // position counts. Equally near entries give equal distances, so the list does not depend on
  // which of them a search meets first. None for a q with a coordinate that is not finite.
  std::size_t nearestSquared(const point& p, std::size_t k, double* squared) const {
    const double q[3] = {p.x, p.y, p.z};
    if (k == 0 || !prepared() || !finite(q))
      return 0;
    // First the nodes of q's own table cell, which most often hold all k; then, from the
    // start nodes of the ball those give, whatever else lies within it.
    Nearest list{squared, k};
    std::array<const Node*, MaxStartCells> own;
    std::size_t owned = 0;
    forStartNodes(q, 0.0, [&](const Node& from) {
      own[owned++] = &from;
      nearestK(from, q, list, own.data(), 0);
    });
    forStartNodes(q, list.bound(), [&](const Node& from) {
      if (boxDistance(from, q) <= list.bound())
        nearestK(from, q, list, own.data(), owned);
    });
    return list.count;
  }

  // The nearest entry within radius, the smallest index among equally near ones (the first
  // entry of getRange's map). False when none.
  bool findNearest(const point& q, double radius, Index& index, double& squaredDistance) const {
    Neighbour found;
    if (!findNearest(q, radius, found, false))
      return false;
    index = found.index;
    squaredDistance = found.squared;
    return true;
  }
  // The same, with the entry's point. With `start`, `found` holds on entry a stored entry near
  // q, such as the previous answer when queries come in spatial order, and the search starts
  // from it: only nodes no farther than that entry are visited. The answer is the same; a
  // starting entry beyond radius is ignored.
  bool findNearest(const point& q, double radius, Neighbour& found, bool start) const {
    if (!prepared())
      return false;
    Best best = startFrom(found, start, q, radius * radius);
    const double c[3] = {q.x, q.y, q.z};
    if (!finite(c))
      return false;
    search(c, best);
    return record(best, found);
  }

  // The nearest entry within radius of each of many points, as findNearest gives it: calls
  // answer(k, neighbour) for each k in [0, count) whose point pointAt(k) has one. The points are
  // taken in the tree's own order, each search starting from the previous answer, and most
  // searches end in the leaf of the point's own cell: several times faster than a findNearest
  // per point.
  template <class PointAt, class Answer>
  void findNearestEach(std::size_t count, const PointAt& pointAt, double radius,
                       const Answer& answer) const {
    if (count == 0 || !prepared())
      return;
    const Basalt::ArrayVector<std::uint64_t> order = queryOrder(count, pointAt);
    const std::uint64_t queryMask = (std::uint64_t{1} << queryBits(count)) - 1;
    // The points of a block of queries are fetched in one pass, whose loads overlap, and then
    // searched in sequence.
    constexpr std::size_t Block = 2048;
    std::vector<point> points(std::min(count, Block));
    InOrder walk{radius * radius};
    for (std::size_t b = 0; b < count; b += Block) {
      const std::size_t e = std::min(count, b + Block);
      for (std::size_t j = b; j < e; ++j)
        points[j - b] = pointAt(order[j] & queryMask);
      for (std::size_t j = b; j < e; ++j)
        if (nearestInOrder(points[j - b], walk))
          answer(order[j] & queryMask, static_cast<const Neighbour&>(walk.last));
    }
  }

  // Every entry in the closed box lo <= p <= hi over the D axes, appended in tree order.
  void getRectangle(const point& lo, const point& hi, std::vector<Index>& out) const {
    if (!prepared())
      return;
    walk(
        nodes_[0],
        [&](const Node& n) {
          for (int k = 0; k < D; ++k)
            if (lo[k] > n.hi[k] || hi[k] < n.lo[k])
              return true;
          return false;
        },
        [&](const Node& leaf) {
          for (std::size_t j = leaf.first, e = leaf.first + leaf.count; j < e; ++j) {
            const double c[3] = {x_[j], y_[j], z_[j]};
            bool in = true;
            for (int k = 0; k < D; ++k)
              in = in && lo[k] <= c[k] && c[k] <= hi[k];
            if (in)
              out.push_back(ids_[j]);
          }
        });
  }

private:
  // Cells are divided at most this often: 21 levels keep a 3-D cell key within 64 bits.
  static constexpr int Levels = 21;
  static constexpr std::size_t NoEntry = std::numeric_limits<std::size_t>::max();
  static constexpr std::uint32_t NoNode = std::numeric_limits<std::uint32_t>::max();
  // At most 2^MaxTableBits table cells; a search touching more than MaxStartCells of them
  // starts from the root.
  static constexpr int MaxTableBits = 20;
  static constexpr std::size_t MaxStartCells = 8;

  struct Node {
    double lo[D]; // the tight box of the node's entries
    double hi[D];
    std::size_t first;    // leaf: its first entry; branch: its first child node
    std::size_t count;    // leaf: its entries; branch: its children (stored one after the other)
    std::size_t distinct; // leaf: its first entries that hold every position once (see place)
    bool leaf;
    unsigned char level; // how many digits of the cell keys all its entries share
  };

  struct LeafCell {
    std::uint64_t first, last;     // the cell keys of the leaf's cell, first to last
    double lo[D], hi[D];           // its box, narrowed by the margin of key rounding
    double outerLo[D], outerHi[D]; // the same of its parent's cell (the leaf's for the root)
    std::uint32_t node, parent;
  };

  struct Best {
    double squared; // best squared distance so far (the squared radius before the first hit)
    Index index;
    std::size_t entry; // where the best entry's point is, NoEntry for a starting entry
    bool found;
  };

  // An entry on its way through the division: its cell key and where its data is.
  struct Keyed {
    std::uint64_t key;
    std::size_t source;
  };
  // Lists of them are written whole before they are read: no zeros first.
  using KeyedList = Basalt::ArrayVector<Keyed>;

  static double squaredDistance(const point& a, const point& b) {
    double s = 0.0;
    for (int k = 0; k < D; ++k) {
      const double d = a[k] - b[k];
      s += d * d;
    }
    return s;
  }
  // Squared distance from q to the nearest point of the node's box. Never more than the
  // distance to any entry in it, also in floating point: each axis term is computed from a
  // coordinate at least as close as the entry's own.
  static double boxDistance(const Node& n, const double* q) {
    double s = 0.0;
    for (int k = 0; k < D; ++k) {
      const double d = larger(larger(n.lo[k] - q[k], q[k] - n.hi[k]), 0.0);
      s += d * d;
    }
    return s;
  }
  // The larger of a and b without a branch: a mispredicted branch here costs more than the
  // whole distance.
  static double larger(double a, double b) {
#if defined(__SSE2__)
    return _mm_cvtsd_f64(_mm_max_sd(_mm_set_sd(a), _mm_set_sd(b)));
#else
    return a > b ? a : b;
#endif
  }
  double entryDistance(std::size_t j, const double* q) const {
    const double dx = x_[j] - q[0], dy = y_[j] - q[1];
    if constexpr (D == 2)
      return dx * dx + dy * dy;
    const double dz = z_[j] - q[2];
    return dx * dx + dy * dy + dz * dz;
  }

  // False for a point with a coordinate that is not finite on the D axes: it is within no
  // distance of any entry, and would only make a search visit every node.
  static bool finite(const double* q) {
    for (int k = 0; k < D; ++k)
      if (!std::isfinite(q[k]))
        return false;
    return true;
  }

  // Completes best from the start nodes of q's ball, passing over a leaf already searched.
  void search(const double* q, Best& best, const Node* searched = nullptr) const {
    forStartNodes(q, best.squared, [&](const Node& from) {
      if (boxDistance(from, q) <= best.squared)
        nearest(from, q, best, searched);
    });
  }
  // The best before a search for q: the known entry when there is one within the squared
  // radius r2, else nothing yet.
  static Best startFrom(const Neighbour& known, bool start, const point& q, double r2) {
    if (start)
      if (const double d2 = squaredDistance(known.position, q); d2 <= r2)
        return {d2, known.index, NoEntry, true};
    return {r2, Index{}, NoEntry, false};
  }
  // Writes a found best into found (whose position already holds a starting entry's point).
  bool record(const Best& best, Neighbour& found) const {
    if (!best.found)
      return false;
    if (best.entry != NoEntry)
      found.position = {x_[best.entry], y_[best.entry], z_[best.entry]};
    found.index = best.index;
    found.squared = best.squared;
    return true;
  }

  // The finest cell of a position on each of the D axes, clamped to the cube (NaN counts as 0).
  std::array<std::uint64_t, D> finestCell(const double* p) const {
    constexpr double last = double((std::uint64_t{1} << Levels) - 1);
    std::array<std::uint64_t, D> cell{};
    for (int k = 0; k < D; ++k) {
      const double c = (p[k] - origin_[k]) * scale_;
      cell[k] = static_cast<std::uint64_t>(c > 0 ? (c < last ? c : last) : 0.0);
    }
    return cell;
  }
  // The Morton key of that cell: its axis numbers interleaved, x in the lowest bit.
  std::uint64_t cellKey(const double* p) const {
    const auto cell = finestCell(p);
    std::uint64_t key = 0;
    for (int k = 0; k < D; ++k)
      key |= spread(cell[k]) << k;
    return key;
  }
  // A search of queries in the tree's order: the squared radius, the last answer (where the
  // next search starts) and the leaf cell the queries have reached.
  struct InOrder {
    double r2;
    Neighbour last{};
    bool known = false;
    std::size_t cell = 0;
  };
  // The nearest entry of p as findNearest gives it, into walk.last; p comes at or after the cell
  // of the previous query.
  bool nearestInOrder(const point& p, InOrder& walk) const {
    const double q[3] = {p.x, p.y, p.z};
    if (!finite(q))
      return false;
    Best best = startFrom(walk.last, walk.known, p, walk.r2);
    // The leaf of q's own cell decides alone when the ball of the best distance lies inside
    // that cell: every entry of the cell is in the leaf, no other entry is so near.
    const std::uint64_t key = cellKey(q);
    std::size_t& cell = walk.cell;
    while (cell < leafCells_.size() && leafCells_[cell].last < key)
      ++cell;
    bool settled = false;
    const Node* searched = nullptr;
    if (cell < leafCells_.size() && leafCells_[cell].first <= key) {
      const LeafCell& own = leafCells_[cell];
      searched = &nodes_[own.node];
      nearestInLeaf(*searched, q, best);
      const double reach = std::sqrt(best.squared);
      settled = inside(q, reach, own.lo, own.hi);
      // Else the parent's cell, likewise, for the parent's other children.
      if (!settled && inside(q, reach, own.outerLo, own.outerHi)) {
        nearest(nodes_[own.parent], q, best, searched);
        settled = true;
      }
    }
    if (!settled)
      search(q, best, searched);
    if (!record(best, walk.last))
      return false;
    walk.known = true;
    return true;
  }
  // True when the ball of radius reach about q lies inside the open box lo .. hi.
  static bool inside(const double* q, double reach, const double* lo, const double* hi) {
    bool in = true;
    for (int k = 0; k < D; ++k)
      in = in && q[k] - reach > lo[k] && q[k] + reach < hi[k];
    return in;
  }

  // Bits that number `count` queries.
  static int queryBits(std::size_t count) {
    return std::max(1, static_cast<int>(std::bit_width(count - 1)));
  }
  // The queries 0 .. count - 1 in the order of their points' cells, each as its cell key's
  // leading digits above its own number: one word a query, sorted down to two levels below
  // the median leaf (finer order gains nothing), fewer when the numbers need the room.
  template <class PointAt>
  Basalt::ArrayVector<std::uint64_t> queryOrder(std::size_t count, const PointAt& pointAt) const {
    const int numberBits = queryBits(count);
    const int levels = std::min({Levels, medianLevel_ + 2, (64 - numberBits) / D});
    const int below = (Levels - levels) * D; // key bits finer than the order needs
    std::vector<std::size_t> starts;
    Basalt::ArrayVector<std::uint64_t> order = inLeadingCells<std::uint64_t>(
        count,
        [&](std::size_t k) {
          const point p = pointAt(k);
          const double c[3] = {p.x, p.y, p.z};
          return cellKey(c);
        },
        [&](std::size_t k, std::uint64_t key) { return (key >> below) << numberBits | k; }, starts);
    // Within each leading cell, by the digits below the leading ones.
    const int finer = levels * D - LeadingLevels * D;
    if (finer > 0) {
      Basalt::ArrayVector<std::uint64_t> buffer;
      for (std::size_t c = 0; c + 1 < starts.size(); ++c)
        Basalt::radixSort(
            order.data() + starts[c], starts[c + 1] - starts[c], numberBits, numberBits + finer,
            [](std::uint64_t item) { return item; }, buffer, 11);
    }
    return order;
  }

  // True once the division is built (on `threads` threads if it is built now) and holds at least
  // one entry.
  bool prepared(int threads = 1) const {
    if (!valid_)
      return false;
    if (!built_.load(std::memory_order_acquire)) {
      std::lock_guard<std::mutex> lock(building_);
      if (!built_.load(std::memory_order_relaxed)) {
        build(threads);
        built_.store(true, std::memory_order_release);
      }
    }
    return !nodes_.empty();
  }

  // Spreads the low 21 bits of v to every D-th bit position.
  static std::uint64_t spread(std::uint64_t v) {
    v &= 0x1fffff;
    if constexpr (D == 3) {
      v = (v | (v << 32)) & 0x1f00000000ffffULL;
      v = (v | (v << 16)) & 0x1f0000ff0000ffULL;
      v = (v | (v << 8)) & 0x100f00f00f00f00fULL;
      v = (v | (v << 4)) & 0x10c30c30c30c30c3ULL;
      v = (v | (v << 2)) & 0x1249249249249249ULL;
    } else {
      v = (v | (v << 16)) & 0x0000ffff0000ffffULL;
      v = (v | (v << 8)) & 0x00ff00ff00ff00ffULL;
      v = (v | (v << 4)) & 0x0f0f0f0f0f0f0f0fULL;
      v = (v | (v << 2)) & 0x3333333333333333ULL;
      v = (v | (v << 1)) & 0x5555555555555555ULL;
    }
    return v;
  }

  // Divides every entry (those of an earlier division, then the new ones) into nodes. Entries
  // wait in the coordinate arrays in insertion order; only their keys are sorted, and the arrays
  // are then put in leaf order one at a time, so a build holds little more than the entries.
  void build(int threads) const;

  // The entries' keys in the order of their leading cells (insertion order within each), and
  // where each cell begins in starts: the division then needs room to sort only within those
  // cells, not every entry once more, and counts the cells above them from starts.
  KeyedList keyedByLeadingCells(std::vector<std::size_t>& starts, int threads) const;

  // Items 0 .. count - 1, each made by make(i, key) from its cell key keyOf(i), in the order of
  // their cells LeadingLevels levels down (in item order within each): counted first, then put
  // in place, with no second array. `starts` gets where each of those cells begins, and the end.
  // On several threads each counts and places a block of items of its own, its items of a cell
  // after those of the blocks before it: the order of one pass.
  static constexpr int LeadingLevels = 12 / D; // 4,096 cells
  static constexpr int LeadingShift = (Levels - LeadingLevels) * D;
  static constexpr std::size_t LeadingCells = std::size_t{1} << (LeadingLevels * D);
  template <class T, class KeyOf, class Make>
  static Basalt::ArrayVector<T> inLeadingCells(std::size_t count, const KeyOf& keyOf,
                                               const Make& make, std::vector<std::size_t>& starts,
                                               int threads = 1) {
    const std::size_t blocks = Basalt::blocksFor(count, threads);
    const auto block = [&](std::size_t k) {
      return std::pair{count * k / blocks, count * (k + 1) / blocks};
    };
    std::vector<std::size_t> next(blocks * LeadingCells, 0); // per block, then where it places
    Basalt::inParts(blocks, threads, [&](std::size_t k, int) {
      std::size_t* counts = next.data() + k * LeadingCells;
      for (auto [i, e] = block(k); i < e; ++i)
        ++counts[keyOf(i) >> LeadingShift];
    });
    starts.assign(LeadingCells + 1, 0);
    std::size_t at = 0;
    for (std::size_t c = 0; c < LeadingCells; ++c) {
      starts[c] = at;
      for (std::size_t k = 0; k < blocks; ++k) {
        const std::size_t counted = next[k * LeadingCells + c];
        next[k * LeadingCells + c] = at;
        at += counted;
      }
    }
    starts[LeadingCells] = at;
    Basalt::ArrayVector<T> items(count); // each written once, below
    Basalt::inParts(blocks, threads, [&](std::size_t k, int) {
      std::size_t* place = next.data() + k * LeadingCells;
      for (auto [i, e] = block(k); i < e; ++i) {
        const std::uint64_t key = keyOf(i);
        items[place[key >> LeadingShift]++] = make(i, key);
      }
    });
    return items;
  }

  // The look-up table: cells one level above where most entries' leaves are, so that a search
  // starts a level or two above the leaves. Each cell gets the node whose entries are exactly
  // those of the cell, or the leaf that holds them, or none.
  void makeTable(const KeyedList& keyed) const;
  void tabulate(const Node& node, const KeyedList& keyed) const;

  // Calls visit(node) for nodes whose subtrees hold, between them, every entry within squared
  // distance d2 of q, each entry once: the table entries of the cells that the ball's box
  // touches (a leaf that spans several of them once), or the root when those are many. Cell
  // bounds are widened by a margin far above the rounding of the keys.
  template <class Visit>
  void forStartNodes(const double* q, double d2, const Visit& visit) const {
    if (tableLevel_ == 0)
      return visit(nodes_[0]);
    const double last = double((std::uint64_t{1} << tableLevel_) - 1);
    const double reach = std::sqrt(d2);
    std::array<std::uint64_t, D> lo{}, hi{};
    std::size_t touched = 1;
    for (int k = 0; k < D; ++k) {
      const double u = (q[k] - origin_[k]) * cellScale_, du = (reach + margin_[k]) * cellScale_;
      const double a = std::floor(u - du), b = std::floor(u + du);
      if (!(a <= b)) // NaN
        return visit(nodes_[0]);
      lo[k] = static_cast<std::uint64_t>(std::clamp(a, 0.0, last));
      hi[k] = static_cast<std::uint64_t>(std::clamp(b, 0.0, last));
      touched *= hi[k] - lo[k] + 1;
    }
    if (touched == 1) { // the usual case
      std::uint64_t key = 0;
      for (int k = 0; k < D; ++k)
        key |= spread(lo[k]) << k;
      if (const std::uint32_t node = table_[key]; node != NoNode)
        visit(nodes_[node]);
      return;
    }
    if (touched > MaxStartCells)
      return visit(nodes_[0]);
    std::array<std::uint32_t, MaxStartCells> found;
    std::size_t count = 0;
    for (std::array<std::uint64_t, D> c = lo;;) {
      std::uint64_t key = 0;
      for (int k = 0; k < D; ++k)
        key |= spread(c[k]) << k;
      const std::uint32_t node = table_[key];
      if (node != NoNode && std::find(found.begin(), found.begin() + count, node) ==
                                found.begin() + static_cast<std::ptrdiff_t>(count))
        found[count++] = node;
      int k = 0;
      while (k < D && c[k] == hi[k])
        c[k] = lo[k], ++k;
      if (k == D)
        break;
      ++c[k];
    }
    for (std::size_t j = 0; j < count; ++j)
      visit(nodes_[found[j]]);
  }

  // A cell left for a division of its own: its node and entries, and how many digits they share.
  struct Subtree {
    std::size_t node, b, e;
    int level;
  };
  // Nodes of a division (its root first, the children of a branch one after the other) and, in
  // the top of a division on several threads, the cells of at most `grain` entries that it
  // leaves to be divided apart.
  struct Division {
    std::vector<Node> nodes;
    std::vector<Subtree> left;
    std::size_t grain = 0;
    std::size_t leaves = 0; // its leaf nodes, for the room a join leaves it
    // Where each leading cell's entries begin in keyed, and the end: the cells of the levels
    // above those are counted from it, with no pass over their entries.
    const std::vector<std::size_t>* leading = nullptr;
  };

  // Makes node `self` of `into` of the entries [b, e) of keyed, whose keys agree on the first
  // `level` digits: a leaf when they fit or cannot be divided further, otherwise a branch whose
  // children are the non-empty cells of the next digit that sets them apart; a branch of at most
  // into.grain entries is left (into.left) instead. Counting sorts are stable, so entries of a
  // leaf keep their insertion order.
  void divide(Division& into, std::size_t self, std::size_t b, std::size_t e, int level,
              KeyedList& keyed, KeyedList& scratch) const;
  // Where a walk puts its next node and its next leaf's cell in nodes_ and leafCells_.
  struct Cursor {
    std::size_t node = 0, leaf = 0;
  };
  // A cell the top left, joined apart: its division, its root's place and parent, and where its
  // other nodes and its leaves' cells go.
  struct Deferred {
    std::size_t part, self, parent;
    Cursor at;
  };
  // The top's walk: the part that replaces each of its nodes (NoNode for none), and the parts met.
  struct TopWalk {
    std::vector<std::uint32_t> partOf;
    const std::vector<Division>& parts;
    std::vector<Deferred> deferred;
  };
  // The nodes of the top and of the cells it left (parts[k] for top.left[k]) into nodes_, in the
  // order of a division on one thread: a branch's children are placed when it is reached, depth
  // first; and the leaves' cells into leafCells_ in the order the walk meets them. A part's nodes
  // below its root, and its leaves' cells, take consecutive places in that order: the top's walk
  // leaves them room, and the parts are then walked on the threads.
  void join(const Division& top, const std::vector<Division>& parts, const KeyedList& keyed,
            int threads) const;
  // Node `local` of `from` into nodes_[self], and its subtree's nodes and leaf cells from `at`
  // on; in the top's walk (top given), a node a part replaces is deferred with the room it takes.
  void joinNode(const Division& from, std::size_t local, std::size_t self, std::size_t parent,
                Cursor& at, const KeyedList& keyed, TopWalk* top) const;

  // Sets start to where the cells of the digit after the first `level` begin among the entries
  // [b, e) (offsets from b, the end last), from into.leading, and answers true, where that digit
  // is a leading one; answers false otherwise.
  static bool leadingStarts(const Division& into, std::size_t b, std::size_t e, int level,
                            const KeyedList& keyed, std::array<std::size_t, (1 << D) + 1>& start);
  // Orders count entries by their digit at `shift` into the cells that `start` gives, stably;
  // entries already in that order stay where they are.
  static void toCells(Keyed* items, std::size_t count,
                      const std::array<std::size_t, (1 << D) + 1>& start, int shift,
                      KeyedList& scratch);

  // Puts the entries in leaf order (the order of `keyed`), then each leaf's entries in index
  // order, and sets the boxes: of each leaf's cell, narrowed by the margin of key rounding, and
  // the tight boxes of all nodes.
  void place(KeyedList& keyed, int threads) const;
  // The leaves' part of place: the leaves of cells first .. last - 1 of leafCells_.
  void placeLeaves(std::size_t first, std::size_t last, std::vector<std::size_t>& order) const;
  // Rearranges one array of entries into the order of `keyed`, through the room of its keys
  // (no longer needed once the table is made), its sources fetched ahead.
  template <class T>
  static void inLeafOrder(KeyedList& keyed, Basalt::ArrayVector<T>& values, int threads);
  // Reorders entries b .. e - 1 by index, stably.
  void sortByIndex(std::size_t b, std::size_t e, std::vector<std::size_t>& order) const;
  // Only a leaf of the finest cells holds more than `capacity` entries, and then mostly copies
  // of a few positions (a scan repeated, points stored twice, a pole in a quadtree). Its entries
  // of distinct positions
  // come first, each the first of its position, then the copies, both in index order; a nearest
  // search looks at the first part only, since no copy is nearer than its first, nor has a
  // smaller index. Searches among many copies then cost what searches among distinct points do.
  void distinctFirst(Node& leaf, std::vector<std::size_t>& order) const;
  // Puts the entries at `order` (positions from b on) at b, b + 1, ...
  void rearrange(std::size_t b, const std::vector<std::size_t>& order) const;

  // The nearest of the leaf's entries of distinct positions, two at a time and without a branch:
  // per lane the least distance and where it first occurs. Entries are in index order, so of
  // equally near ones the first has the smallest index. A NaN distance never counts.
  void nearestInLeaf(const Node& leaf, const double* q, Best& best) const {
    const std::size_t b = leaf.first, n = leaf.distinct;
    std::size_t j = 0, at = 0;
    double least = std::numeric_limits<double>::infinity();
#if defined(__SSE2__)
    if (n >= 2) {
      const __m128d qx = _mm_set1_pd(q[0]), qy = _mm_set1_pd(q[1]), qz = _mm_set1_pd(q[2]);
      const __m128d two = _mm_set1_pd(2.0);
      __m128d low = _mm_set1_pd(least), where = _mm_setzero_pd(), position = _mm_set_pd(1.0, 0.0);
      for (; j + 2 <= n; j += 2) {
        const __m128d d = pairDistance(b + j, qx, qy, qz);
        const __m128d nearer = _mm_cmplt_pd(d, low);
        low = _mm_min_pd(d, low);
        where = _mm_or_pd(_mm_and_pd(nearer, position), _mm_andnot_pd(nearer, where));
        position = _mm_add_pd(position, two);
      }
      const double low0 = _mm_cvtsd_f64(low), low1 = _mm_cvtsd_f64(_mm_unpackhi_pd(low, low));
      const double at0 = _mm_cvtsd_f64(where), at1 = _mm_cvtsd_f64(_mm_unpackhi_pd(where, where));
      const bool second = low1 < low0 || (low1 == low0 && at1 < at0);
      least = second ? low1 : low0;
      at = static_cast<std::size_t>(second ? at1 : at0);
    }
#endif
    for (; j < n; ++j) {
      const double d2 = entryDistance(b + j, q);
      if (d2 < least)
        least = d2, at = j;
    }
    // (With no entry nearer than infinity, `at` is no entry's place: its distance tells.)
    if ((least < best.squared ||
         (least == best.squared && (!best.found || ids_[b + at] < best.index))) &&
        (least < std::numeric_limits<double>::infinity() || entryDistance(b + at, q) == least))
      best = {least, ids_[b + at], b + at, true};
  }
#if defined(__SSE2__)
  // The squared distances of entries j and j + 1: the arithmetic of entryDistance.
  __m128d pairDistance(std::size_t j, __m128d qx, __m128d qy, __m128d qz) const {
    const __m128d dx = _mm_sub_pd(_mm_loadu_pd(&x_[j]), qx);
    const __m128d dy = _mm_sub_pd(_mm_loadu_pd(&y_[j]), qy);
    __m128d d = _mm_add_pd(_mm_mul_pd(dx, dx), _mm_mul_pd(dy, dy));
    if constexpr (D == 3) {
      const __m128d dz = _mm_sub_pd(_mm_loadu_pd(&z_[j]), qz);
      d = _mm_add_pd(d, _mm_mul_pd(dz, dz));
    } else {
      (void)qz;
    }
    return d;
  }
#endif

  // The children of branch n whose boxes lie within squared distance `bound` of q, nearest first
  // (an insertion sort of at most 2^D), into order with their distances; returns how many.
  int childrenByDistance(const Node& n, const double* q, double bound, const Node** order,
                         double* distance) const {
    int count = 0;
    for (std::size_t c = n.first, e = n.first + n.count; c < e; ++c) {
      const double d2 = boxDistance(nodes_[c], q);
      if (d2 > bound)
        continue;
      int j = count++;
      for (; j > 0 && distance[j - 1] > d2; --j) {
        distance[j] = distance[j - 1];
        order[j] = order[j - 1];
      }
      distance[j] = d2;
      order[j] = &nodes_[c];
    }
    return count;
  }

  void nearest(const Node& n, const double* q, Best& best, const Node* searched) const {
    if (n.leaf) {
      if (&n != searched)
        nearestInLeaf(n, q, best);
      return;
    }
    double distance[1 << D];
    const Node* order[1 << D];
    const int count = childrenByDistance(n, q, best.squared, order, distance);
    for (int j = 0; j < count && distance[j] <= best.squared; ++j)
      nearest(*order[j], q, best, searched);
  }

  // The k smallest squared distances found so far, ascending, and how many there are.
  struct Nearest {
    double* squared;
    std::size_t k, count = 0;
    double bound() const {
      return count < k ? std::numeric_limits<double>::infinity() : squared[k - 1];
    }
    void add(double d2) {
      if (!(d2 < bound()))
        return; // an equal distance would change nothing
      std::size_t j = count < k ? count++ : k - 1;
      for (; j > 0 && squared[j - 1] > d2; --j)
        squared[j] = squared[j - 1];
      squared[j] = d2;
    }
  };
  // Completes list from the entries of n's subtree, children nearest first, passing over a node
  // whose box lies beyond the list's bound and the `skipped` nodes already searched.
  void nearestK(const Node& n, const double* q, Nearest& list, const Node* const* skipped,
                std::size_t skips) const {
    if (std::find(skipped, skipped + skips, &n) != skipped + skips)
      return;
    if (n.leaf) {
      std::size_t j = n.first;
      const std::size_t e = n.first + n.count;
#if defined(__SSE2__)
      // Two entries at a time; most are beyond the bound and are passed over in one test.
      const __m128d qx = _mm_set1_pd(q[0]), qy = _mm_set1_pd(q[1]), qz = _mm_set1_pd(q[2]);
      for (; j + 2 <= e; j += 2) {
        const __m128d d = pairDistance(j, qx, qy, qz);
        if (_mm_movemask_pd(_mm_cmplt_pd(d, _mm_set1_pd(list.bound()))) != 0) {
          list.add(_mm_cvtsd_f64(d));
          list.add(_mm_cvtsd_f64(_mm_unpackhi_pd(d, d)));
        }
      }
#endif
      for (; j < e; ++j)
        list.add(entryDistance(j, q));
      return;
    }
    double distance[1 << D];
    const Node* order[1 << D];
    const int count = childrenByDistance(n, q, list.bound(), order, distance);
    for (int j = 0; j < count && distance[j] <= list.bound(); ++j)
      nearestK(*order[j], q, list, skipped, skips);
  }

  // Calls found(entry, squared distance) for every entry within radius of q, in tree order.
  template <class Found>
  void within(const point& p, double radius, const Found& found) const {
    if (!prepared())
      return;
    const double q[3] = {p.x, p.y, p.z};
    const double r2 = radius * radius;
    if (!finite(q))
      return;
    forStartNodes(q, r2, [&](const Node& from) {
      walk(
          from, [&](const Node& n) { return !(boxDistance(n, q) <= r2); },
          [&](const Node& leaf) {
            for (std::size_t j = leaf.first; j < leaf.first + leaf.count; ++j)
              if (const double d2 = entryDistance(j, q); d2 <= r2)
                found(j, d2);
          });
    });
  }

  // Depth-first over the nodes that pass `miss`, leaves to onLeaf.
  template <class Miss, class OnLeaf>
  void walk(const Node& n, const Miss& miss, const OnLeaf& onLeaf) const {
    if (miss(n))
      return;
    if (n.leaf)
      return onLeaf(n);
    for (std::size_t c = n.first, e = n.first + n.count; c < e; ++c)
      walk(nodes_[c], miss, onLeaf);
  }

  BoundingBox box_;
  bool valid_ = false;
  unsigned capacity_;
  double side_ = 0.0;              // side of the cube that the cells divide
  std::array<double, 3> origin_{}; // its minimum corner
  double scale_ = 0.0;             // finest cells per unit of length
  std::array<double, D> margin_{}; // far above the rounding of cell keys, per axis
  std::size_t count_ = 0;

  // The division: nodes (the root first) and the entries, coordinates one array per axis, in
  // leaf order followed by the insertions not yet divided.
  mutable Basalt::ArrayVector<Node> nodes_;
  mutable Basalt::ArrayVector<double> x_, y_, z_;
  mutable Basalt::ArrayVector<Index> ids_;
  // Cells of a fixed level (2^(D * tableLevel_) of them, by Morton key) and the node to start
  // a search from when the searched ball lies inside one.
  mutable int tableLevel_ = 0;
  mutable std::vector<std::uint32_t> table_;
  mutable double cellScale_ = 0.0; // table cells per unit of length
  // The finest cell of each leaf's entries, in key order, for searches in the tree's order.
  mutable Basalt::ArrayVector<LeafCell> leafCells_;
  mutable int medianLevel_ = 0; // the level of the leaf of the median entry
  mutable std::atomic<bool> built_{true};
  mutable std::mutex building_;
};

// The construction and the division of the trees are compiled once, in vantor/trees.cpp; the
// queries are made where they are used, so that they inline into the callers' loops.
extern template BucketTree<unsigned, 2>::BucketTree(const Basalt::StrongPtr<BoundingBox>&,
                                                    unsigned);
extern template void BucketTree<unsigned, 2>::build(int) const;
extern template BucketTree<unsigned, 3>::BucketTree(const Basalt::StrongPtr<BoundingBox>&,
                                                    unsigned);
extern template void BucketTree<unsigned, 3>::build(int) const;
extern template BucketTree<unsigned long long, 2>::BucketTree(const Basalt::StrongPtr<BoundingBox>&,
                                                              unsigned);
extern template void BucketTree<unsigned long long, 2>::build(int) const;
extern template BucketTree<unsigned long long, 3>::BucketTree(const Basalt::StrongPtr<BoundingBox>&,
                                                              unsigned);
extern template void BucketTree<unsigned long long, 3>::build(int) const;

// OcTree<Index> and QuadTree<Index> name the two forms; they are declared in vantor/tree_base.hpp.

} // namespace Vantor
