// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, spatial index: the bucket tree over a fixed box (octree for D = 3,
// quadtree over x and y for D = 2) with radius, box and cell queries.
#pragma once

#include "basalt/array_allocator.hpp"
#include "basalt/console.hpp"
#include "basalt/parts.hpp"
#include "vantor/physical_space.hpp"
#include "vantor/tree_base.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace Tarrow {

namespace detail {
template <class Index>
std::string indexText(const Index& index) {
  return std::to_string(index);
}
} // namespace detail

// A region tree that stores (point, index) pairs in leaf buckets of a fixed capacity and splits
// a full leaf into 2^D children around its centre. Child number: (p.x < c.x ? 1 : 0) +
// (p.y < c.y ? 2 : 0) + (p.z < c.z ? 4 : 0) for D = 3, so a coordinate on the centre plane goes
// to the upper child. D = 2 stores z but ignores it.
//
// Duplicates: a full leaf that can no longer be divided (every stored point equals the new one
// in the D coordinates, its box has collapsed below the resolution of its coordinates, or it is
// MaxDepth deep) takes entries beyond its capacity instead of splitting without end. Inputs with
// at most `capacity` copies of one position are stored exactly as without this rule.
//
// Thread-safety: the tree is built by one thread (insertEach may use several, each building
// subtrees of its own); afterwards every const query may run from several threads at once. Queries
// allocate nothing beyond what they append to the caller's containers.
template <class Index, class Point, int D>
class OcTreeStd {
  static_assert(D == 2 || D == 3, "the tree has two or three dimensions");

public:
  static constexpr int Children = 1 << D;
  // Depth at which a full leaf stops splitting; far beyond what distinct doubles need.
  static constexpr unsigned MaxDepth = 512;

  class Node {
  public:
    Node(const Point& min_, const Point& max_, unsigned long long capacity_, unsigned depth_,
         bool leaf)
        : min(min_), max(max_), centre(min_), capacity(capacity_), depth(depth_), leaf_(leaf) {
      for (int k = 0; k < 3; ++k)
        centre[k] = (min[k] + max[k]) / 2;
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    virtual ~Node() = default;
    virtual bool insert(const Point& p, const Index& i) = 0;
    virtual std::string toString(unsigned level) const = 0;
    // The queries are the same walk for both node kinds: prune by this node's box first, then
    // a leaf tests its points and a branch visits its children 0 to 2^D - 1.
    virtual void getManhattenRangeCellWise(const Point& lo, const Point& hi, double,
                                           std::vector<Index>& out) const {
      OcTreeStd::cellWise(*this, lo, hi, out);
    }
    virtual void getManhattenRangeFine(const Point& lo, const Point& hi, double,
                                       std::vector<Index>& out) const {
      OcTreeStd::manhattan(*this, lo, hi, out);
    }
    virtual void getManhattenRangeFine(const Point& lo, const Point& hi, double,
                                       std::multimap<double, Index>& out) const {
      OcTreeStd::manhattan(*this, lo, hi, out);
    }
    virtual void getEuclideanRangeFine(const Point& q, double radius,
                                       std::multimap<double, Index>& out) const {
      OcTreeStd::euclidean(*this, q, radius, out);
    }
    virtual void getEuclideanRangeFine(const Point& q, double radius,
                                       std::vector<Index>& out) const {
      OcTreeStd::euclidean(*this, q, radius, out);
    }
    virtual unsigned getDepth() const = 0;
    virtual std::size_t getSize() const = 0;

    bool isLeaf() const { return leaf_; }

    // False when splitting could not separate any entries: the box has collapsed below the
    // resolution of its coordinates on every axis, or the depth bound is reached.
    bool splittable() const { return OcTreeStd::splittable(min, max, depth); }
    // The number of p's child cell.
    int childNumber(const Point& p) const {
      int number = 0;
      for (int k = 0; k < D; ++k)
        number += p[k] < centre[k] ? 1 << k : 0;
      return number;
    }
    // The same, and that cell's box.
    int childOf(const Point& p, Point& lo, Point& hi) const {
      const int number = childNumber(p);
      lo = min;
      hi = max;
      for (int k = 0; k < D; ++k)
        (((number >> k) & 1) != 0 ? hi : lo)[k] = centre[k];
      return number;
    }

    Point min;
    Point max;
    Point centre;
    unsigned long long capacity;
    unsigned depth;

  protected:
    // Indentation and, from level 1 on, the box in x and y (each coordinate followed by ", ").
    std::string header(const char* kind, std::size_t count, unsigned level) const {
      std::string out(3 * static_cast<std::size_t>(depth), ' ');
      out += kind;
      out += std::to_string(count);
      if (level == 0)
        return out + "\n";
      return out + Basalt::format(", {%f, %f, }-{%f, %f, }\n", min[0], min[1], max[0], max[1]);
    }

  private:
    bool leaf_;
  };

  class Leaf final : public Node {
  public:
    Leaf(const Point& min_, const Point& max_, unsigned long long capacity_, unsigned depth_)
        : Node(min_, max_, capacity_, depth_, true) {
      indices.reserve(capacity_);
      points.reserve(capacity_);
    }

    bool insert(const Point& p, const Index& i) override {
      if (indices.size() >= this->capacity && divisible(p))
        return false;
      if (!points.empty() && !OcTreeStd::samePosition(points.front(), p))
        copies = false;
      indices.push_back(i);
      points.push_back(p);
      return true;
    }
    std::string toString(unsigned level) const override {
      std::string out = this->header("Leave with elements: ", indices.size(), level);
      if (level >= 2)
        for (const Index& i : indices)
          out += std::string(3 * static_cast<std::size_t>(this->depth), ' ') +
                 detail::indexText(i) + "\n";
      return out;
    }
    unsigned getDepth() const override { return this->depth; }
    std::size_t getSize() const override { return indices.size(); }

    std::vector<Index> indices;
    std::vector<Point> points;
    // True while every entry has the position of the first on the D axes: every query then
    // measures one distance for the whole leaf, however many copies it holds.
    bool copies = true;

  private:
    // False when splitting cannot separate the entries: all equal p, or the box cannot split.
    bool divisible(const Point& p) const {
      return this->splittable() && !points.empty() &&
             (!copies || !OcTreeStd::samePosition(points.front(), p));
    }
  };

  class Branch final : public Node {
  public:
    Branch(const Point& min_, const Point& max_, unsigned long long capacity_, unsigned depth_)
        : Node(min_, max_, capacity_, depth_, false) {}

    bool insert(const Point& p, const Index& i) override {
      Point lo, hi;
      std::unique_ptr<Node>& slot = children[this->childOf(p, lo, hi)];
      if (!slot) {
        slot = std::make_unique<Leaf>(lo, hi, this->capacity, this->depth + 1);
        slot->insert(p, i);
      } else if (slot->isLeaf()) {
        if (!slot->insert(p, i))
          slot = split(static_cast<Leaf&>(*slot), p, i);
      } else {
        slot->insert(p, i);
      }
      return true;
    }
    std::string toString(unsigned level) const override {
      std::size_t used = 0;
      for (const auto& c : children)
        used += c ? 1 : 0;
      std::string out = this->header("Branch with childs: ", used, level);
      for (const auto& c : children)
        if (c)
          out += c->toString(level);
      return out;
    }
    unsigned getDepth() const override {
      unsigned deepest = 0;
      for (const auto& c : children)
        if (c)
          deepest = std::max(deepest, c->getDepth());
      return deepest;
    }
    std::size_t getSize() const override {
      std::size_t n = 0;
      for (const auto& c : children)
        if (c)
          n += c->getSize();
      return n;
    }

    std::array<std::unique_ptr<Node>, Children> children;
  };

  // An empty tree over the box [min, max]; capacity is the bucket size of every leaf.
  OcTreeStd(const Point& min_, const Point& max_, unsigned long long capacity_)
      : min(min_), max(max_), capacity(capacity_),
        root(std::make_unique<Leaf>(min_, max_, capacity_, 1)) {}

  // Adds p with its index. A point outside the box (bounds inclusive) or with a NaN coordinate
  // is refused with the line "OcTreeStd::insert() ERROR out of bounds!   <coordinate>   outside
  // of [<min>;<max>]" on standard output. True when the point was stored.
  bool insert(const Point p, const Index i) {
    if (!Vantor::acceptsPoint<D>(p, min, max))
      return false;
    if (root->insert(p, i))
      return true;
    root = split(static_cast<Leaf&>(*root), p, i);
    return true;
  }

  // Stores the entries of `indices` in their order, the point of each given by pointOf(index),
  // as insert() one after the other would: the same nodes, the same lists in them, the same line
  // for each refused point, in order. An empty tree is built from the top down instead, on
  // `threads` threads (buildFromTop). A tree that holds entries takes them one by one.
  template <class PointOf>
  void insertEach(std::vector<Index> indices, const PointOf& pointOf, int threads) {
    if (getSize() > 0) {
      for (const Index& i : indices)
        insert(pointOf(i), i);
      return;
    }
    std::size_t kept = 0;
    for (const Index& i : indices)
      if (Vantor::acceptsPoint<D>(pointOf(i), min, max))
        indices[kept++] = i;
    buildFromTop(indices.data(), kept, pointOf, threads);
  }

  // The same for the indices i in [0, n) that keep(i) accepts, in index order, with no list from
  // the caller: on an empty tree the list of those stored is made on `threads` threads too.
  template <class Keep, class PointOf>
  void insertEach(std::size_t n, int threads, const Keep& keep, const PointOf& pointOf) {
    if (getSize() > 0) {
      for (std::size_t i = 0; i < n; ++i)
        if (keep(i))
          insert(pointOf(static_cast<Index>(i)), static_cast<Index>(i));
      return;
    }
    std::atomic<bool> refused{false};
    const auto stored = [&](std::size_t i) {
      if (!keep(i))
        return false;
      if (Vantor::axisOutside<D>(pointOf(static_cast<Index>(i)), min, max) == D)
        return true;
      refused.store(true, std::memory_order_relaxed);
      return false;
    };
    Basalt::ArrayVector<Index> accepted;
    Basalt::packInBlocks(
        n, Basalt::blocksFor(n, threads), threads, stored,
        [&](std::size_t count) { accepted.resize(count); }, // each entry written once, below
        [&](std::size_t i, std::size_t at) { accepted[at] = static_cast<Index>(i); });
    if (refused.load()) // the messages of the points refused, in index order
      for (std::size_t i = 0; i < n; ++i)
        if (keep(i))
          Vantor::acceptsPoint<D>(pointOf(static_cast<Index>(i)), min, max);
    buildFromTop(accepted.data(), accepted.size(), pointOf, threads);
  }

  // Appends, in tree order, every index whose point lies within radius of centre (squared
  // distance over the D axes, inclusive). Nothing is cleared or sorted.
  void getEuclideanRangeFine(const Point& centre, double radius, std::vector<Index>& out) const {
    euclidean(*root, centre, radius, out);
  }
  // The same with the squared distance as key: nearest first, equal keys in tree order.
  void getEuclideanRangeFine(const Point& centre, double radius,
                             std::multimap<double, Index>& out) const {
    euclidean(*root, centre, radius, out);
  }
  // Appends every index whose point lies in the half-open box lo <= p < hi (D axes).
  void getManhattenRangeFine(const Point& lo, const Point& hi, double unused,
                             std::vector<Index>& out) const {
    root->getManhattenRangeFine(lo, hi, unused, out);
  }
  // The same with the squared distance to the box centre (lo + hi) / 2 as key.
  void getManhattenRangeFine(const Point& lo, const Point& hi, double unused,
                             std::multimap<double, Index>& out) const {
    root->getManhattenRangeFine(lo, hi, unused, out);
  }
  // Appends all indices of every leaf whose box passes the box test, without testing points.
  void getManhattenRangeCellWise(const Point& lo, const Point& hi, double unused,
                                 std::vector<Index>& out) const {
    root->getManhattenRangeCellWise(lo, hi, unused, out);
  }

  // The radius query as (squared distance, index) pairs, stably sorted by squared distance: the
  // same order as the multimap form, in a caller's reused vector (cleared first).
  void getEuclideanRangeSorted(const Point& centre, double radius,
                               std::vector<std::pair<double, Index>>& out) const {
    out.clear();
    walk(
        *root, [&](const Node& n) { return euclideanMiss(n, centre, radius); },
        [&](const Leaf& leaf) { appendWithin(leaf, centre, radius * radius, out); });
    sortByDistance(out);
  }

  // The radius query of getEuclideanRangeSorted, except that a leaf of copies of one position
  // lists only its first `perLeaf` entries that lie within radius: the list is then the sorted
  // one without entries that come after perLeaf others of the same distance, so its first
  // perLeaf entries are those of the whole list. Returns how many entries lie within radius,
  // those left out included. A point among 10^5 copies costs one distance, not 10^5.
  std::size_t getEuclideanRangeSortedFirst(const Point& centre, double radius, std::size_t perLeaf,
                                           std::vector<std::pair<double, Index>>& out) const {
    out.clear();
    std::size_t found = 0;
    const double r2 = radius * radius;
    walk(
        *root, [&](const Node& n) { return euclideanMiss(n, centre, radius); },
        [&](const Leaf& leaf) {
          if (!leaf.copies || leaf.points.empty()) {
            found += appendWithin(leaf, centre, r2, out);
            return;
          }
          const double d2 = squaredDistance(leaf.points.front(), centre);
          if (!(d2 <= r2))
            return;
          found += leaf.indices.size();
          for (std::size_t j = 0; j < std::min(perLeaf, leaf.indices.size()); ++j)
            out.emplace_back(d2, leaf.indices[j]);
        });
    sortByDistance(out);
    return found;
  }

  // Visits the leaves in tree order with their points and indices: f(points, indices). Points
  // visited in this order lie near each other, so queries about them touch the same nodes.
  template <class F>
  void forEachLeaf(const F& f) const {
    walk(
        *root, [](const Node&) { return false; },
        [&](const Leaf& leaf) { f(leaf.points, leaf.indices); });
  }

  // The nearest point within radius of centre (squared distance over the D axes, inclusive);
  // among equally near points the one with the smallest index. False when none lies within
  // radius. Children are visited nearest box first, and a subtree is skipped once its box lies
  // farther than the best point so far, so a query touches few leaves.
  bool findNearest(const Point& centre, double radius, Index& index, double& squared) const {
    Nearest best{radius * radius, Index{}, false};
    if (!euclideanMiss(*root, centre, radius))
      nearest(*root, centre, best);
    if (best.found) {
      index = best.index;
      squared = best.squared;
    }
    return best.found;
  }

  // Appends every index whose point lies in the closed box lo <= p <= hi (D axes).
  void getClosedBoxRange(const Point& lo, const Point& hi, std::vector<Index>& out) const {
    walk(
        *root,
        [&](const Node& n) {
          for (int k = 0; k < D; ++k)
            if (lo[k] > n.max[k] || hi[k] < n.min[k])
              return true;
          return false;
        },
        [&](const Leaf& leaf) {
          for (std::size_t j = 0; j < leaf.points.size(); ++j) {
            const Point& p = leaf.points[j];
            bool in = true;
            for (int k = 0; k < D; ++k)
              in = in && lo[k] <= p[k] && p[k] <= hi[k];
            if (in)
              out.push_back(leaf.indices[j]);
          }
        });
  }

  std::size_t getSize() const { return root->getSize(); }
  unsigned getDepth() const { return root->getDepth(); }
  std::string toString(unsigned level) const { return root->toString(level); }

  Point min;
  Point max;
  unsigned long long capacity;
  std::unique_ptr<Node> root;

private:
  // Stable sort by squared distance: by insertion for the short lists that most queries give
  // (no buffer to allocate), by the library otherwise.
  static void sortByDistance(std::vector<std::pair<double, Index>>& out) {
    if (out.size() > 48) {
      std::stable_sort(out.begin(), out.end(),
                       [](const auto& a, const auto& b) { return a.first < b.first; });
      return;
    }
    for (std::size_t i = 1; i < out.size(); ++i) {
      const auto entry = out[i];
      std::size_t j = i;
      for (; j > 0 && out[j - 1].first > entry.first; --j)
        out[j] = out[j - 1];
      out[j] = entry;
    }
  }
  // Equal on the D axes (as the distances see them).
  static bool samePosition(const Point& a, const Point& b) {
    for (int k = 0; k < D; ++k)
      if (!(a[k] == b[k]))
        return false;
    return true;
  }
  // Whether a node of the box lo .. hi at `depth` can separate entries (Node::splittable).
  static bool splittable(const Point& lo, const Point& hi, unsigned depth) {
    if (depth >= MaxDepth)
      return false;
    bool collapsed = true;
    for (int k = 0; k < D; ++k) {
      const double centre = (lo[k] + hi[k]) / 2;
      collapsed = collapsed && !(lo[k] < centre && centre < hi[k]);
    }
    return !collapsed;
  }
  // Appends (squared distance, index) for the leaf's points within squared distance r2 of
  // centre, in the leaf's order; returns how many. The query is held in locals: as far as the
  // compiler can tell, appending to out might write over the caller's values, which it would
  // then read again for every point.
  static std::size_t appendWithin(const Leaf& leaf, const Point& centre, double r2,
                                  std::vector<std::pair<double, Index>>& out) {
    const Point q = centre;
    const Point* points = leaf.points.data();
    const Index* indices = leaf.indices.data();
    const std::size_t n = leaf.points.size(), before = out.size();
    for (std::size_t j = 0; j < n; ++j) {
      const double d2 = squaredDistance(points[j], q);
      if (d2 <= r2)
        out.emplace_back(d2, indices[j]);
    }
    return out.size() - before;
  }
  // Squared distance over the D axes.
  static double squaredDistance(const Point& a, const Point& b) {
    double s = 0.0;
    for (int k = 0; k < D; ++k) {
      const double d = a[k] - b[k];
      s += d * d;
    }
    return s;
  }
  // Squared distance from q to the nearest point of the node's box (D axes).
  static double boxSquaredDistance(const Node& n, const Point& q) {
    double s = 0.0;
    for (int k = 0; k < D; ++k) {
      const double d =
          q[k] < n.min[k] ? n.min[k] - q[k] : (q[k] > n.max[k] ? q[k] - n.max[k] : 0.0);
      s += d * d;
    }
    return s;
  }
  // The node box test of radius queries: skip when q - r lies above the box or q + r does not
  // reach above its minimum, on any of the D axes.
  // A node that passes it but lies wholly farther than r from q is skipped too: none of its points
  // could be found, so the results are the same and fewer leaves are scanned.
  static bool euclideanMiss(const Node& n, const Point& q, double r) {
    for (int k = 0; k < D; ++k)
      if (q[k] - r > n.max[k] || q[k] + r <= n.min[k])
        return true;
    return boxSquaredDistance(n, q) > r * r;
  }
  // The node box test of box queries: skip when lo lies above the box or the box's minimum is
  // not below hi, on any of the D axes.
  static bool manhattanMiss(const Node& n, const Point& lo, const Point& hi) {
    for (int k = 0; k < D; ++k)
      if (lo[k] > n.max[k] || n.min[k] >= hi[k])
        return true;
    return false;
  }

  struct Nearest {
    double squared; // best squared distance so far (the squared radius before the first hit)
    Index index;
    bool found;
  };

  static void nearest(const Node& n, const Point& q, Nearest& best) {
    if (n.isLeaf()) {
      const auto& leaf = static_cast<const Leaf&>(n);
      for (std::size_t j = 0; j < leaf.points.size(); ++j) {
        const double d2 = squaredDistance(leaf.points[j], q);
        if (d2 < best.squared ||
            (d2 == best.squared && (!best.found || leaf.indices[j] < best.index))) {
          best = {d2, leaf.indices[j], true};
        }
      }
      return;
    }
    // Children by the distance of their boxes, nearest first (insertion sort of at most 8).
    // Plain arrays: this runs at every level of every query, and needs no initialisation.
    const auto& children = static_cast<const Branch&>(n).children;
    double distance[Children];
    const Node* order[Children];
    int count = 0;
    for (const auto& c : children) {
      if (!c)
        continue;
      const double d2 = boxSquaredDistance(*c, q);
      int j = count++;
      for (; j > 0 && distance[j - 1] > d2; --j) {
        distance[j] = distance[j - 1];
        order[j] = order[j - 1];
      }
      distance[j] = d2;
      order[j] = c.get();
    }
    for (int j = 0; j < count; ++j) {
      if (distance[j] > best.squared)
        break;
      nearest(*order[j], q, best);
    }
  }

  // Depth-first over the nodes that pass `miss`, children in number order, leaves to onLeaf.
  template <class Miss, class OnLeaf>
  static void walk(const Node& n, const Miss& miss, const OnLeaf& onLeaf) {
    if (miss(n))
      return;
    if (n.isLeaf()) {
      onLeaf(static_cast<const Leaf&>(n));
      return;
    }
    for (const auto& c : static_cast<const Branch&>(n).children)
      if (c)
        walk(*c, miss, onLeaf);
  }

  static void euclidean(const Node& n, const Point& q, double r, std::vector<Index>& out) {
    const double r2 = r * r;
    walk(
        n, [&](const Node& m) { return euclideanMiss(m, q, r); },
        [&](const Leaf& leaf) {
          for (std::size_t j = 0; j < leaf.points.size(); ++j)
            if (squaredDistance(leaf.points[j], q) <= r2)
              out.push_back(leaf.indices[j]);
        });
  }
  static void euclidean(const Node& n, const Point& q, double r,
                        std::multimap<double, Index>& out) {
    const double r2 = r * r;
    walk(
        n, [&](const Node& m) { return euclideanMiss(m, q, r); },
        [&](const Leaf& leaf) {
          for (std::size_t j = 0; j < leaf.points.size(); ++j) {
            const double d2 = squaredDistance(leaf.points[j], q);
            if (d2 <= r2)
              out.emplace(d2, leaf.indices[j]);
          }
        });
  }
  static bool inHalfOpen(const Point& p, const Point& lo, const Point& hi) {
    for (int k = 0; k < D; ++k)
      if (!(lo[k] <= p[k] && p[k] < hi[k]))
        return false;
    return true;
  }
  static void manhattan(const Node& n, const Point& lo, const Point& hi, std::vector<Index>& out) {
    walk(
        n, [&](const Node& m) { return manhattanMiss(m, lo, hi); },
        [&](const Leaf& leaf) {
          for (std::size_t j = 0; j < leaf.points.size(); ++j)
            if (inHalfOpen(leaf.points[j], lo, hi))
              out.push_back(leaf.indices[j]);
        });
  }
  static void manhattan(const Node& n, const Point& lo, const Point& hi,
                        std::multimap<double, Index>& out) {
    Point middle = lo;
    for (int k = 0; k < 3; ++k)
      middle[k] = (lo[k] + hi[k]) / 2;
    walk(
        n, [&](const Node& m) { return manhattanMiss(m, lo, hi); },
        [&](const Leaf& leaf) {
          for (std::size_t j = 0; j < leaf.points.size(); ++j)
            if (inHalfOpen(leaf.points[j], lo, hi))
              out.emplace(squaredDistance(leaf.points[j], middle), leaf.indices[j]);
        });
  }
  static void cellWise(const Node& n, const Point& lo, const Point& hi, std::vector<Index>& out) {
    walk(
        n, [&](const Node& m) { return manhattanMiss(m, lo, hi); },
        [&](const Leaf& leaf) { out.insert(out.end(), leaf.indices.begin(), leaf.indices.end()); });
  }

  // Entries of a build from the top: a run of its list.
  struct Span {
    Index* first;
    std::size_t count;
  };
  // Builds the empty tree from the top: the count entries at first, all inside the box, are
  // sorted in place, the top of the tree divided level by level down to cells of a sixteenth of
  // a thread's share, whose subtrees are then built apart.
  template <class PointOf>
  void buildFromTop(Index* first, std::size_t count, const PointOf& pointOf, int threads) {
    // Room to sort a cell's entries into its children, one per thread.
    std::vector<Basalt::ArrayVector<Index>> scratch(static_cast<std::size_t>(std::max(threads, 1)));
    using With = Building<PointOf>;
    const Cell top{&root, min, max, 1, Span{first, count}};
    if (threads <= 1)
      return build(top, With{pointOf, scratch[0]});
    const std::size_t grain = std::max<std::size_t>(count / (16 * std::size_t(threads)), 1);
    std::vector<Cell> later;
    for (std::vector<Cell> level{top}; !level.empty();)
      level = divideLevel(level, grain, threads, pointOf, scratch, later);
    Basalt::inParts(later.size(), threads, [&](std::size_t k, int thread) {
      build(later[k], With{pointOf, scratch[static_cast<std::size_t>(thread)]});
    });
  }

  // A node still to be made: its place in its parent, its box and depth, its entries.
  struct Cell {
    std::unique_ptr<Node>* slot;
    Point lo, hi;
    unsigned depth;
    Span entries;
  };
  // What a build passes down: the entries' points and room to sort them.
  template <class PointOf>
  struct Building {
    const PointOf& pointOf;
    Basalt::ArrayVector<Index>& scratch;
  };

  // Orders the n entries at first by child, stably, through scratch; child c's are then those
  // from start[c] to start[c + 1]. Blocks of entries on `threads` threads count their children,
  // then place them after those of the blocks before: the order of one pass over them all.
  template <class ChildOf>
  static void byChild(Index* first, std::size_t n, const ChildOf& childOf,
                      std::array<std::size_t, Children + 1>& start,
                      Basalt::ArrayVector<Index>& scratch, int threads) {
    const std::size_t blocks = Basalt::blocksFor(n, threads);
    // Counts per block: on the stack for the one block of every node but the largest.
    std::array<std::array<std::size_t, Children>, 1> one{};
    std::vector<std::array<std::size_t, Children>> many(blocks > 1 ? blocks : 0);
    const std::span<std::array<std::size_t, Children>> next =
        blocks > 1 ? std::span(many) : std::span(one);
    Basalt::inParts(blocks, threads, [&](std::size_t k, int) {
      for (std::size_t j = n * k / blocks; j < n * (k + 1) / blocks; ++j)
        ++next[k][childOf(j)];
    });
    std::size_t offset = 0;
    for (std::size_t c = 0; c < Children; ++c) {
      start[c] = offset;
      for (auto& block : next)
        offset += std::exchange(block[c], offset);
    }
    start[Children] = offset;
    if (scratch.size() < n)
      scratch.resize(n);
    Basalt::inParts(blocks, threads, [&](std::size_t k, int) {
      for (std::size_t j = n * k / blocks; j < n * (k + 1) / blocks; ++j)
        scratch[next[k][childOf(j)]++] = first[j];
    });
    Basalt::inBlocks(n, blocks, threads, [&](std::size_t b, std::size_t e, int) {
      std::copy(scratch.begin() + static_cast<std::ptrdiff_t>(b),
                scratch.begin() + static_cast<std::ptrdiff_t>(e), first + b);
    });
  }

  // Makes the nodes of one level of a build from the top, the cells of the level before: a cell
  // that its entries let several threads sort is divided on them all, one such after the other;
  // the others side by side, one thread each. Returns the next level's cells, those of more than
  // grain entries; the smaller ones go to later, to be built apart. The nodes do not depend on
  // which thread makes them, so the tree is the one of a build on one thread.
  template <class PointOf>
  std::vector<Cell> divideLevel(const std::vector<Cell>& level, std::size_t grain, int threads,
                                const PointOf& pointOf,
                                std::vector<Basalt::ArrayVector<Index>>& scratch,
                                std::vector<Cell>& later) const {
    std::vector<std::vector<Cell>> children(level.size());
    std::vector<std::size_t> small;
    for (std::size_t k = 0; k < level.size(); ++k) {
      if (Basalt::blocksFor(level[k].entries.count, threads) == 1) {
        small.push_back(k);
        continue;
      }
      divide(level[k], Building<PointOf>{pointOf, scratch[0]}, threads,
             [&](const Cell& child) { children[k].push_back(child); });
    }
    Basalt::inParts(small.size(), threads, [&](std::size_t s, int thread) {
      divide(level[small[s]], Building<PointOf>{pointOf, scratch[static_cast<std::size_t>(thread)]},
             1, [&](const Cell& child) { children[small[s]].push_back(child); });
    });
    std::vector<Cell> next;
    for (const std::vector<Cell>& cells : children)
      for (const Cell& cell : cells)
        (cell.entries.count > grain ? next : later).push_back(cell);
    return next;
  }

  // Puts into its slot the node of a cell, and then the nodes below it.
  template <class PointOf>
  void build(const Cell& cell, const Building<PointOf>& with) const {
    divide(cell, with, 1, [&](const Cell& child) { build(child, with); });
  }

  // Puts into the cell's slot the node that insertions of its entries, in their order, make: a
  // branch when they overfill it and it can separate them (a leaf splits at the first insertion
  // that finds it full and either holding two positions or given another), else a leaf of them
  // all. A branch's entries are sorted by child on `threads` threads, and each child that gets
  // entries is handed to below(child cell), in child order, to be made.
  template <class PointOf, class Below>
  void divide(const Cell& cell, const Building<PointOf>& with, int threads,
              const Below& below) const {
    Index* const first = cell.entries.first;
    const std::size_t n = cell.entries.count;
    bool apart = false;
    for (std::size_t j = 1; j < n && !apart; ++j)
      apart = !samePosition(with.pointOf(first[j]), with.pointOf(first[0]));
    if (n <= capacity || !apart || !splittable(cell.lo, cell.hi, cell.depth)) {
      auto leaf = std::make_unique<Leaf>(cell.lo, cell.hi, capacity, cell.depth);
      leaf->indices.assign(first, first + n);
      leaf->points.reserve(n);
      for (std::size_t j = 0; j < n; ++j)
        leaf->points.push_back(with.pointOf(first[j]));
      leaf->copies = !apart;
      *cell.slot = std::move(leaf);
      return;
    }
    auto made = std::make_unique<Branch>(cell.lo, cell.hi, capacity, cell.depth);
    Branch& branch = *made;
    *cell.slot = std::move(made);
    // The entries by child, in their order.
    std::array<std::size_t, Children + 1> start{};
    byChild(
        first, n,
        [&](std::size_t j) {
          return static_cast<std::size_t>(branch.childNumber(with.pointOf(first[j])));
        },
        start, with.scratch, threads);
    for (int c = 0; c < Children; ++c) {
      const Span part{first + start[c], start[c + 1] - start[c]};
      if (part.count == 0)
        continue;
      // A point of the cell gives the cell's box, as it does to an insertion.
      Point childLo, childHi;
      branch.childOf(with.pointOf(part.first[0]), childLo, childHi);
      below(Cell{&branch.children[c], childLo, childHi, cell.depth + 1, part});
    }
  }

  // Replaces a full leaf by a branch of the same box and depth holding its entries, in their
  // order, and then the new one.
  static std::unique_ptr<Node> split(Leaf& leaf, const Point& p, const Index& i) {
    auto branch = std::make_unique<Branch>(leaf.min, leaf.max, leaf.capacity, leaf.depth);
    for (std::size_t j = 0; j < leaf.indices.size(); ++j)
      branch->insert(leaf.points[j], leaf.indices[j]);
    branch->insert(p, i);
    return branch;
  }
};

} // namespace Tarrow
