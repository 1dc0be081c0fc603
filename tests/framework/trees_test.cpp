// SPDX-License-Identifier: BSD-3-Clause
// Tests of the bucket tree and the framework trees: every query against brute force, the dump
// format, bounds, duplicates and NaN.
#include "support/brute_force.hpp"
#include "tarrow/oc_tree_std.hpp"
#include "tressel/mem_array.hpp"
#include "tressel/trees.hpp"
#include "vantor/trees.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using Vantor::PhysicalSpace::point;

template <class IndexT, int Dim>
struct Config {
  using Index = IndexT;
  static constexpr int D = Dim;
};

template <class C>
class TreeOracle : public testing::Test {};
using Configs = testing::Types<Config<unsigned, 2>, Config<unsigned, 3>,
                               Config<unsigned long long, 2>, Config<unsigned long long, 3>>;
TYPED_TEST_SUITE(TreeOracle, Configs);

// The lowest and highest coordinates of the points, axis by axis.
std::pair<point, point> boundsOf(const std::vector<point>& xyz) {
  point lo = xyz[0], hi = xyz[0];
  for (const point& p : xyz)
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], p[k]);
      hi[k] = std::max(hi[k], p[k]);
    }
  return {lo, hi};
}

// Uniform points, or clusters with many exact duplicates.
std::vector<point> makeCloud(bool clustered, std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> u(0.0, 100.0);
  std::normal_distribution<double> spread(0.0, 0.5);
  std::vector<point> out;
  std::vector<point> centres;
  for (int c = 0; c < 5; ++c)
    centres.push_back({u(random), u(random), u(random) / 10});
  while (out.size() < n) {
    if (!clustered) {
      out.push_back({1e6 + u(random), 5e6 + u(random), u(random) / 4});
      continue;
    }
    const point& c = centres[random() % centres.size()];
    point p{1e6 + c.x + spread(random), 5e6 + c.y + spread(random), c.z + spread(random)};
    const int copies = random() % 4 == 0 ? 3 : 1;
    for (int k = 0; k < copies && out.size() < n; ++k)
      out.push_back(p);
  }
  return out;
}

template <int D>
double squared(const point& a, const point& b) {
  return BruteForce::squaredDistance(a, b, D);
}

// Piles of copies (in x-y only for 2-D trees, whose leaves then hold several heights) among
// clustered points: the lists that stop at perLeaf entries of a leaf of copies begin as the
// full sorted lists do, and count every entry within the radius.
TYPED_TEST(TreeOracle, ListsCutAtCopiesBeginAsTheFullLists) {
  using Index = typename TypeParam::Index;
  constexpr int D = TypeParam::D;
  auto xyz = makeCloud(true, 1500, 5);
  const point piles[] = {xyz[0], xyz[1], {xyz[2].x, xyz[2].y, xyz[2].z + 0.1}};
  for (int k = 0; k < 3000; ++k) {
    point p = piles[k % 3];
    if (D == 2 && k % 3 == 2)
      p.z += 0.01 * (k % 7);
    xyz.insert(xyz.begin() + static_cast<std::ptrdiff_t>((k * 7919) % xyz.size()), p);
  }
  const auto [lo, hi] = boundsOf(xyz);
  Tarrow::OcTreeStd<Index, point, D> tree(lo, hi, 16);
  for (std::size_t i = 0; i < xyz.size(); ++i)
    ASSERT_TRUE(tree.insert(xyz[i], static_cast<Index>(i)));
  std::mt19937 random(9);
  std::vector<std::pair<double, Index>> full, cut;
  for (int query = 0; query < 90; ++query) {
    const point q = query % 3 == 0 ? piles[query % 2] : xyz[random() % xyz.size()];
    const double r = query % 5 == 0 ? 0.0 : 0.05 + 3.0 * (random() % 1000) / 1000.0;
    tree.getEuclideanRangeSorted(q, r, full);
    for (std::size_t perLeaf : {1u, 5u, 40u}) {
      ASSERT_EQ(tree.getEuclideanRangeSortedFirst(q, r, perLeaf, cut), full.size());
      ASSERT_LE(cut.size(), full.size());
      const std::size_t head = std::min(perLeaf, full.size());
      ASSERT_GE(cut.size(), head);
      EXPECT_TRUE(
          std::equal(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(head), cut.begin()))
          << "query " << query << " perLeaf " << perLeaf;
    }
  }
}

// A tree built from the top down, on one thread or several, is the tree that insertions one
// after another make: the same dump of every node and the entries of every leaf in order, the
// same lines for the points it refuses, in order, and the same lists cut at copies (its leaves
// of copies known as such). The cloud: clustered points with copies, a pile of copies, two
// positions one unit in the last place apart (their cells collapse before they part), points
// outside the box and NaN, in a shuffled order; enough of them that the top cells are sorted by
// blocks on several threads.
TYPED_TEST(TreeOracle, TreesBuiltFromTheTopAreTheTreesOfInsertions) {
  using Index = typename TypeParam::Index;
  constexpr int D = TypeParam::D;
  using Tree = Tarrow::OcTreeStd<Index, point, D>;
  auto xyz = makeCloud(true, 140000, 21);
  const auto [lo, hi] = boundsOf(xyz);
  const point pile = xyz[7], near = xyz[9];
  const point apart{std::nextafter(near.x, hi.x + 1), near.y, near.z};
  for (int k = 0; k < 1000; ++k) {
    xyz.push_back(pile);
    xyz.push_back(near);
    xyz.push_back(apart);
  }
  xyz.push_back({lo.x - 1, lo.y, lo.z});
  xyz.push_back({std::nan(""), hi.y, hi.z});
  std::shuffle(xyz.begin(), xyz.end(), std::mt19937(3));
  std::vector<Index> all(xyz.size());
  std::iota(all.begin(), all.end(), Index{0});
  const auto pointOf = [&](Index i) { return xyz[static_cast<std::size_t>(i)]; };
  // The lists of a few queries cut at copies, one entry of a leaf of copies each.
  const auto cutLists = [&](const Tree& tree) {
    std::vector<std::pair<double, Index>> out, list;
    for (const point& q : {pile, near, xyz[100], xyz[2000]}) {
      tree.getEuclideanRangeSortedFirst(q, 0.7, 1, list);
      out.insert(out.end(), list.begin(), list.end());
    }
    return out;
  };
  for (const unsigned capacity : {16u, 1u}) {
    Tree inserted(lo, hi, capacity);
    CaptureStdout();
    for (const Index i : all)
      inserted.insert(pointOf(i), i);
    const std::string refused = GetCapturedStdout();
    ASSERT_NE(refused, "");
    const std::string dump = inserted.toString(2);
    for (const int threads : {1, 2, 3, 8}) {
      Tree built(lo, hi, capacity);
      CaptureStdout();
      built.insertEach(all, pointOf, threads);
      EXPECT_EQ(GetCapturedStdout(), refused);
      // Compared whole: a difference is found by the line below, not by a diff of the dumps.
      EXPECT_TRUE(built.toString(2) == dump) << "capacity " << capacity << ", " << threads;
      EXPECT_EQ(cutLists(built), cutLists(inserted));
    }
  }
}

// The radius queries of the bucket tree around q against brute force: the indices within r, the
// lists keyed by squared distance and the nearest point.
template <class Index, int D, class Tree>
void checkRadiusQueries(Tree& tree, const std::vector<point>& xyz, const point& q, double r) {
  std::set<Index> expected;
  for (const auto& [d2, i] :
       BruteForce::within(xyz, q, r * r, D, BruteForce::indices(0, xyz.size())))
    expected.insert(static_cast<Index>(i));
  std::vector<Index> found;
  tree.getEuclideanRangeFine(q, r, found);
  EXPECT_EQ(std::set<Index>(found.begin(), found.end()), expected);
  EXPECT_EQ(found.size(), expected.size()); // no index twice

  std::multimap<double, Index> ordered;
  tree.getEuclideanRangeFine(q, r, ordered);
  ASSERT_EQ(ordered.size(), expected.size());
  for (const auto& [key, index] : ordered)
    EXPECT_EQ(key, squared<D>(xyz[index], q)); // keys are squared distances, ascending
  // Equal keys keep tree order: the multimap's order is the vector's order, stably sorted.
  std::vector<std::pair<double, Index>> sorted;
  tree.getEuclideanRangeSorted(q, r, sorted);
  EXPECT_EQ(sorted, (std::vector<std::pair<double, Index>>(ordered.begin(), ordered.end())));
  // The nearest: smallest squared distance, then smallest index.
  Index nearest{};
  double nearestSquared = -1;
  ASSERT_TRUE(tree.findNearest(q, r, nearest, nearestSquared));
  EXPECT_EQ(nearestSquared, ordered.begin()->first);
  const auto oracle = BruteForce::nearest(xyz, q, r * r, D, BruteForce::indices(0, xyz.size()));
  ASSERT_TRUE(oracle.has_value());
  EXPECT_EQ(nearest, static_cast<Index>(oracle->second));
}

// The box queries of the bucket tree against brute force: half-open and closed boxes, keys by
// squared distance from the box's middle, and the cell-wise superset.
template <class Index, int D, class Tree>
void checkBoxQueries(Tree& tree, const std::vector<point>& xyz, const point& boxLo,
                     const point& boxHi) {
  std::set<Index> inBox, inClosedBox;
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    bool half = true, closed = true;
    for (int k = 0; k < D; ++k) {
      half = half && boxLo[k] <= xyz[i][k] && xyz[i][k] < boxHi[k];
      closed = closed && boxLo[k] <= xyz[i][k] && xyz[i][k] <= boxHi[k];
    }
    if (half)
      inBox.insert(static_cast<Index>(i));
    if (closed)
      inClosedBox.insert(static_cast<Index>(i));
  }
  std::vector<Index> found;
  tree.getManhattenRangeFine(boxLo, boxHi, 0.0, found);
  EXPECT_EQ(std::set<Index>(found.begin(), found.end()), inBox);
  EXPECT_EQ(found.size(), inBox.size());

  std::multimap<double, Index> byCentre;
  tree.getManhattenRangeFine(boxLo, boxHi, 0.0, byCentre);
  ASSERT_EQ(byCentre.size(), inBox.size());
  point middle;
  for (int k = 0; k < 3; ++k)
    middle[k] = (boxLo[k] + boxHi[k]) / 2;
  for (const auto& [key, index] : byCentre)
    EXPECT_EQ(key, squared<D>(xyz[index], middle));

  found.clear();
  tree.getManhattenRangeCellWise(boxLo, boxHi, 0.0, found);
  const std::set<Index> cells(found.begin(), found.end());
  EXPECT_EQ(cells.size(), found.size());
  EXPECT_TRUE(std::includes(cells.begin(), cells.end(), inBox.begin(), inBox.end()));

  found.clear();
  tree.getClosedBoxRange(boxLo, boxHi, found);
  EXPECT_EQ(std::set<Index>(found.begin(), found.end()), inClosedBox);
}

TYPED_TEST(TreeOracle, EveryQueryMatchesBruteForce) {
  using Index = typename TypeParam::Index;
  constexpr int D = TypeParam::D;
  for (bool clustered : {false, true}) {
    const auto xyz = makeCloud(clustered, 3000, clustered ? 11 : 7);
    const auto [lo, hi] = boundsOf(xyz);
    Tarrow::OcTreeStd<Index, point, D> tree(lo, hi, 16);
    for (std::size_t i = 0; i < xyz.size(); ++i)
      ASSERT_TRUE(tree.insert(xyz[i], static_cast<Index>(i)));
    ASSERT_EQ(tree.getSize(), xyz.size());

    std::mt19937 random(3);
    std::uniform_real_distribution<double> pick(0.0, 1.0);
    for (int query = 0; query < 60; ++query) {
      const point q = xyz[random() % xyz.size()];
      const double r = 0.2 + 4.0 * pick(random);
      ASSERT_NO_FATAL_FAILURE((checkRadiusQueries<Index, D>(tree, xyz, q, r)));

      point boxLo = q, boxHi = q;
      for (int k = 0; k < 3; ++k) {
        boxLo[k] -= r * pick(random);
        boxHi[k] += r * pick(random);
      }
      ASSERT_NO_FATAL_FAILURE((checkBoxQueries<Index, D>(tree, xyz, boxLo, boxHi)));
    }
  }
}

TEST(OcTreeStd, SplitDepthAndDumpAtEveryLevel) {
  Tarrow::OcTreeStd<unsigned, point, 3> tree(point{0, 0, 0}, point{2, 2, 2}, 2);
  tree.insert(point{1.5, 1.5, 1.5}, 0); // child 0: the upper corner
  tree.insert(point{0.5, 0.5, 0.5}, 1); // child 7
  EXPECT_EQ(tree.getDepth(), 1u);
  EXPECT_EQ(tree.toString(0), "   Leave with elements: 2\n");
  tree.insert(point{0.5, 1.5, 1.5}, 2); // child 1; the full root leaf becomes a branch
  EXPECT_EQ(tree.getSize(), 3u);
  EXPECT_EQ(tree.getDepth(), 2u);
  EXPECT_EQ(tree.toString(0), "   Branch with childs: 3\n"
                              "      Leave with elements: 1\n"
                              "      Leave with elements: 1\n"
                              "      Leave with elements: 1\n");
  EXPECT_EQ(tree.toString(1),
            "   Branch with childs: 3, {0.000000, 0.000000, }-{2.000000, 2.000000, }\n"
            "      Leave with elements: 1, {1.000000, 1.000000, }-{2.000000, 2.000000, }\n"
            "      Leave with elements: 1, {0.000000, 1.000000, }-{1.000000, 2.000000, }\n"
            "      Leave with elements: 1, {0.000000, 0.000000, }-{1.000000, 1.000000, }\n");
  EXPECT_EQ(tree.toString(2),
            "   Branch with childs: 3, {0.000000, 0.000000, }-{2.000000, 2.000000, }\n"
            "      Leave with elements: 1, {1.000000, 1.000000, }-{2.000000, 2.000000, }\n"
            "      0\n"
            "      Leave with elements: 1, {0.000000, 1.000000, }-{1.000000, 2.000000, }\n"
            "      2\n"
            "      Leave with elements: 1, {0.000000, 0.000000, }-{1.000000, 1.000000, }\n"
            "      1\n");

  const auto& branch = static_cast<const decltype(tree)::Branch&>(*tree.root);
  ASSERT_TRUE(branch.children[0] && branch.children[1] && branch.children[7]);
  EXPECT_EQ(branch.children[7]->depth, 2u);
  const auto& leaf = static_cast<const decltype(tree)::Leaf&>(*branch.children[7]);
  EXPECT_EQ(leaf.indices.capacity(), 2u); // reserved to the capacity at creation
  EXPECT_EQ(leaf.points.capacity(), 2u);
}

TEST(OcTreeStd, BoundsAreInclusiveAndTheCentrePlaneGoesUp) {
  Tarrow::OcTreeStd<unsigned long long, point, 2> tree(point{0, 0, 0}, point{10, 10, 0}, 1);
  CaptureStdout();
  EXPECT_TRUE(tree.insert(point{10, 0, 99}, 0)); // x on max; z is not checked for D = 2
  EXPECT_TRUE(tree.insert(point{0, 10, -5}, 1));
  EXPECT_FALSE(tree.insert(point{10.000001, 5, 0}, 2));
  EXPECT_FALSE(tree.insert(point{5, -0.5, 0}, 3));
  EXPECT_EQ(GetCapturedStdout(),
            "OcTreeStd::insert() ERROR out of bounds!   10.000001000000   outside of "
            "[0.000000000000;10.000000000000]\n"
            "OcTreeStd::insert() ERROR out of bounds!   -0.500000000000   outside of "
            "[0.000000000000;10.000000000000]\n");
  EXPECT_EQ(tree.getSize(), 2u);

  Tarrow::OcTreeStd<unsigned, point, 2> halves(point{0, 0, 0}, point{2, 2, 0}, 1);
  halves.insert(point{0.5, 0.5, 0}, 0);
  halves.insert(point{1.0, 1.0, 0}, 1); // exactly on both centre planes: child 0 (upper)
  const auto& branch = static_cast<const decltype(halves)::Branch&>(*halves.root);
  ASSERT_TRUE(branch.children[0]);
  EXPECT_EQ(static_cast<const decltype(halves)::Leaf&>(*branch.children[0]).indices,
            std::vector<unsigned>{1});
}

TEST(OcTreeStd, QueryEdgeCases) {
  Tarrow::OcTreeStd<unsigned, point, 3> tree(point{0, 0, 0}, point{8, 8, 8}, 2);
  const std::vector<point> xyz = {{1, 1, 1}, {1.2, 1, 1}, {7, 7, 7}, {3, 3, 3}, {3.5, 3, 3}};
  for (unsigned i = 0; i < xyz.size(); ++i)
    tree.insert(xyz[i], i);

  std::vector<unsigned> found;
  tree.getEuclideanRangeFine(point{3, 3, 3}, 0.0, found); // radius 0 finds the coinciding point
  EXPECT_EQ(found, std::vector<unsigned>{3});

  found.clear();
  tree.getManhattenRangeFine(point{3, 3, 3}, point{3, 3, 3}, 0.0, found); // half-open, lo = hi
  EXPECT_TRUE(found.empty());
  tree.getManhattenRangeFine(point{1, 1, 1}, point{1.2, 2, 2}, 0.0, found); // 1.2 excluded
  EXPECT_EQ(found, std::vector<unsigned>{0});

  found.clear(); // the cell-wise variant returns the leaf-mate outside the box as well
  tree.getManhattenRangeCellWise(point{0.9, 0.9, 0.9}, point{1.1, 1.1, 1.1}, 0.0, found);
  EXPECT_EQ(std::set<unsigned>(found.begin(), found.end()), (std::set<unsigned>{0, 1}));

  std::multimap<double, unsigned> ordered;
  tree.getEuclideanRangeFine(point{3, 3, 3}, 1.0, ordered);
  EXPECT_EQ(ordered, (std::multimap<double, unsigned>{{0.0, 3}, {0.25, 4}}));
  unsigned nearest = 0;
  double squaredDistance = 0;
  EXPECT_FALSE(tree.findNearest(point{5, 5, 5}, 1.0, nearest, squaredDistance));
}

TEST(OcTreeStd, ManyIdenticalPointsAndNaNDoNotHarmTheTree) {
  Tarrow::OcTreeStd<unsigned, point, 3> tree(point{0, 0, 0}, point{100, 100, 100}, 64);
  for (unsigned i = 0; i < 10000; ++i)
    ASSERT_TRUE(tree.insert(point{50, 50, 50}, i));
  tree.insert(point{10, 10, 10}, 10000);
  tree.insert(point{50, 50, 50.5}, 10001);
  CaptureStdout();
  EXPECT_FALSE(tree.insert(point{std::nan(""), 10, 10}, 10002));
  EXPECT_FALSE(tree.insert(point{10, 10, std::nan("")}, 10003));
  EXPECT_EQ(GetCapturedStdout(), "OcTreeStd::insert() ERROR out of bounds!   nan   outside of "
                                 "[0.000000000000;100.000000000000]\n"
                                 "OcTreeStd::insert() ERROR out of bounds!   nan   outside of "
                                 "[0.000000000000;100.000000000000]\n");
  EXPECT_EQ(tree.getSize(), 10002u);
  EXPECT_LT(tree.getDepth(), 10u);

  std::vector<unsigned> found;
  tree.getEuclideanRangeFine(point{50, 50, 50}, 0.1, found);
  EXPECT_EQ(found.size(), 10000u);
  found.clear();
  tree.getEuclideanRangeFine(point{10, 10, 10}, 1.0, found);
  EXPECT_EQ(found, std::vector<unsigned>{10000});
  unsigned nearest = 0;
  double squaredDistance = 0;
  ASSERT_TRUE(tree.findNearest(point{50, 50, 50.4}, 1.0, nearest, squaredDistance));
  EXPECT_EQ(nearest, 10001u);

  // Identical points beyond a capacity of 1, and a capacity of 0, still end.
  Tarrow::OcTreeStd<unsigned, point, 2> tiny(point{0, 0, 0}, point{1, 1, 1}, 0);
  for (unsigned i = 0; i < 100; ++i)
    tiny.insert(point{0.25, 0.25, 0}, i);
  tiny.insert(point{0.75, 0.75, 0}, 100);
  EXPECT_EQ(tiny.getSize(), 101u);
}

TEST(OcTreeStd, ConcurrentQueriesAgreeWithSerialOnes) {
  const auto xyz = makeCloud(false, 5000, 5);
  const auto [lo, hi] = boundsOf(xyz);
  Tarrow::OcTreeStd<unsigned, point, 3> tree(lo, hi, 64);
  for (unsigned i = 0; i < xyz.size(); ++i)
    tree.insert(xyz[i], i);
  std::vector<std::size_t> serial(xyz.size()), parallel(xyz.size());
  std::vector<unsigned> found;
  for (std::size_t i = 0; i < xyz.size(); ++i) {
    found.clear();
    tree.getEuclideanRangeFine(xyz[i], 3.0, found);
    serial[i] = found.size();
  }
#pragma omp parallel num_threads(3)
  {
    std::vector<unsigned> mine;
#pragma omp for schedule(dynamic, 64)
    for (long long i = 0; i < static_cast<long long>(xyz.size()); ++i) {
      mine.clear();
      tree.getEuclideanRangeFine(xyz[i], 3.0, mine);
      parallel[i] = mine.size();
    }
  }
  EXPECT_EQ(serial, parallel);
}

template <class C>
class FrameworkTreeOracle : public testing::Test {};
TYPED_TEST_SUITE(FrameworkTreeOracle, Configs);

// A flat airborne-like strip, clusters with duplicates, and integer points on the cell planes.
std::vector<point> frameworkCloud(int kind, std::size_t n, unsigned seed) {
  if (kind < 2)
    return makeCloud(kind == 1, n, seed);
  std::mt19937 random(seed);
  std::vector<point> out(n);
  // Kind 2: a grid with some copies; kind 3: thousands of copies of a few positions, some of
  // them one above the other (copies in x-y), beside a few single points.
  for (auto& p : out)
    p = kind == 2 ? point{double(random() % 65), double(random() % 65), double(random() % 3)}
        : random() % 50 == 0 ? point{double(random() % 65), double(random() % 65), 0.5}
                             : point{double(random() % 2), 7.0, double(random() % 3)};
  return out;
}

// The radius queries of a framework tree holding the first `stored` points around q against
// brute force, and its nearest point, also by the search that starts from the last answer.
template <class Index, int D, class Tree>
void checkFrameworkRadius(Tree& tree, const std::vector<point>& xyz, std::size_t stored,
                          const point& q, double r, typename Tree::Neighbour& last, bool& known) {
  std::vector<std::pair<double, Index>> expected;
  for (const auto& [d2, i] :
       BruteForce::sortedWithin(xyz, q, r * r, D, BruteForce::indices(0, stored)))
    expected.emplace_back(d2, static_cast<Index>(i));

  std::multimap<double, Index> ordered;
  tree.getRange(q, r, ordered);
  using Entries = std::vector<std::pair<double, Index>>;
  EXPECT_EQ(Entries(ordered.begin(), ordered.end()), expected);
  std::vector<Index> found;
  tree.getRange(q, r, found);
  std::sort(found.begin(), found.end());
  std::vector<Index> expectedIndices;
  for (const auto& entry : expected)
    expectedIndices.push_back(entry.second);
  std::sort(expectedIndices.begin(), expectedIndices.end());
  EXPECT_EQ(found, expectedIndices); // each once

  Index nearest{};
  double nearestSquared = -1;
  const bool any = tree.findNearest(q, r, nearest, nearestSquared);
  ASSERT_EQ(any, !expected.empty());
  const bool started = tree.findNearest(q, r, last, known);
  ASSERT_EQ(started, any);
  if (any) {
    EXPECT_EQ(std::make_pair(nearestSquared, nearest), expected.front());
    EXPECT_EQ(std::make_pair(last.squared, last.index), expected.front());
    EXPECT_EQ(last.position, xyz[last.index]);
    known = true;
  }
}

// The closed-box query of a framework tree holding the first `stored` points.
template <class Index, int D, class Tree>
void checkFrameworkBox(Tree& tree, const std::vector<point>& xyz, std::size_t stored,
                       const point& lo, const point& hi) {
  std::vector<Index> inBox;
  for (std::size_t i = 0; i < stored; ++i) {
    bool in = true;
    for (int k = 0; k < D; ++k)
      in = in && lo[k] <= xyz[i][k] && xyz[i][k] <= hi[k];
    if (in)
      inBox.push_back(static_cast<Index>(i));
  }
  std::vector<Index> found;
  tree.getRectangle(lo, hi, found);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, inBox);
}

// The k smallest squared distances from q to the first `stored` points, for a few k: those of
// brute force, copies counted each.
template <int D, class Tree>
void checkFrameworkNearestK(Tree& tree, const std::vector<point>& xyz, std::size_t stored,
                            const point& q) {
  std::vector<double> all(stored);
  for (std::size_t i = 0; i < stored; ++i)
    all[i] = squared<D>(xyz[i], q);
  std::sort(all.begin(), all.end());
  for (const std::size_t k : {std::size_t{1}, std::size_t{9}, std::size_t{40}}) {
    std::vector<double> found(k, -1.0);
    found.resize(tree.nearestSquared(q, k, found.data()));
    EXPECT_EQ(found, std::vector<double>(all.begin(), all.begin() + std::min(k, stored)))
        << k << " nearest";
  }
}

// Many nearest-point queries at once answer as brute force does, one answer per query.
template <class Index, int D, class Tree>
void checkFrameworkNearestEach(Tree& tree, const std::vector<point>& xyz, std::size_t stored,
                               const std::vector<point>& asked) {
  const auto candidates = BruteForce::indices(0, stored);
  for (const double r : {0.25, 1.5, std::numeric_limits<double>::infinity()}) {
    std::vector<std::pair<double, Index>> answers(asked.size(), {-1.0, Index{}});
    tree.findNearestEach(
        asked.size(), [&](std::size_t k) { return asked[k]; }, r,
        [&](std::size_t k, const typename Tree::Neighbour& found) {
          EXPECT_EQ(answers[k].first, -1.0); // one answer per query
          EXPECT_EQ(found.position, xyz[found.index]);
          answers[k] = {found.squared, found.index};
        });
    for (std::size_t k = 0; k < asked.size(); ++k) {
      std::pair<double, Index> expected{-1.0, Index{}};
      if (const auto nearest = BruteForce::nearest(xyz, asked[k], r * r, D, candidates))
        expected = {nearest->first, static_cast<Index>(nearest->second)};
      EXPECT_EQ(answers[k], expected) << "query " << k << " radius " << r;
    }
  }
}

// Every query of the framework trees against brute force, with small buckets so that the tree
// is deep and searches start from its cell table; points are queried in a walk so that the
// previous answer is a near start, and more points are added after the first queries.
TYPED_TEST(FrameworkTreeOracle, EveryQueryMatchesBruteForce) {
  using Index = typename TypeParam::Index;
  constexpr int D = TypeParam::D;
  using Tree = Vantor::BucketTree<Index, D>;
  for (int kind : {0, 1, 2, 3}) {
    auto xyz = frameworkCloud(kind, 6000, 5 + kind);
    auto bbox = std::make_shared<Vantor::BoundingBox>();
    for (const point& p : xyz)
      bbox->expand(p);
    Tree tree(bbox, 4);
    const std::size_t firstPart = 4000;
    for (std::size_t i = 0; i < firstPart; ++i)
      ASSERT_TRUE(tree.insert(xyz[i], static_cast<Index>(i)));

    std::mt19937 random(9);
    std::uniform_real_distribution<double> pick(0.0, 1.0);
    typename Tree::Neighbour last;
    bool known = false;
    for (std::size_t stored : {firstPart, xyz.size()}) {
      std::vector<point> asked;
      if (stored == xyz.size()) {
        for (std::size_t i = firstPart; i < xyz.size(); ++i)
          ASSERT_TRUE(tree.insert(xyz[i], static_cast<Index>(i)));
      }
      ASSERT_EQ(tree.size(), stored);
      point q = xyz[0];
      for (int query = 0; query < 300; ++query) {
        // Mostly small steps, sometimes a jump to a stored point, sometimes exactly onto one.
        const int move = query % 10;
        if (move == 0)
          q = xyz[random() % stored];
        else
          for (int k = 0; k < 3; ++k)
            q[k] += move == 5 ? 0.0 : (pick(random) - 0.5) * (kind == 2 ? 2.0 : 0.6);
        const double r = query % 7 == 0 ? 8.0 : 0.3 + 2.0 * pick(random);
        ASSERT_NO_FATAL_FAILURE(
            (checkFrameworkRadius<Index, D>(tree, xyz, stored, q, r, last, known)));

        point lo = q, hi = q;
        for (int k = 0; k < 3; ++k) {
          lo[k] -= r * pick(random);
          hi[k] += r * pick(random);
        }
        checkFrameworkBox<Index, D>(tree, xyz, stored, lo, hi);
        checkFrameworkNearestK<D>(tree, xyz, stored, q);
        asked.push_back(q);
      }

      // Many queries at once (more than one block of them), also from outside the box, from
      // points on a stored point and between duplicates, and a NaN: the same answers as one by
      // one.
      for (std::size_t i = 0; i < stored; i += 3)
        asked.push_back(xyz[i]);
      asked.push_back({bbox->min().x - 0.2, bbox->min().y, bbox->max().z + 0.1});
      asked.push_back({std::nan(""), bbox->min().y, 0.0});
      checkFrameworkNearestEach<Index, D>(tree, xyz, stored, asked);
    }
  }
}

// A division made on several threads is the one a single thread makes: every entry in the same
// place (a box query over everything lists the entries in tree order: leaves, and entries within
// them, copies after distinct positions), the same cells to start from (radius queries in tree
// order and nearest answers of queries in the tree's order), also when entries are added to a
// tree divided before. Small buckets make deep trees whose top is cut into many cells. On one
// thread the entries go in one insertion at a time; on more, by insertEach on the same threads,
// with the same points left out and the same refused NaN points reported in the same order.
TYPED_TEST(FrameworkTreeOracle, DivisionsOnManyThreadsAreTheDivisionOfOne) {
  using Index = typename TypeParam::Index;
  constexpr int D = TypeParam::D;
  using Tree = Vantor::BucketTree<Index, D>;
  for (int kind : {0, 1, 2, 3}) {
    const auto xyz = frameworkCloud(kind, 140000, 11 + kind);
    auto bbox = std::make_shared<Vantor::BoundingBox>();
    for (const point& p : xyz)
      bbox->expand(p);
    const point lo = bbox->min(), hi = bbox->max();
    std::vector<point> asked;
    for (std::size_t i = 0; i < xyz.size(); i += 61)
      asked.push_back({xyz[i].x + 0.1, xyz[i].y - 0.05, xyz[i].z});
    // What a tree answers, all in its own order.
    const auto answers = [&](const Tree& tree) {
      std::vector<Index> out;
      tree.getRectangle(lo, hi, out);
      for (std::size_t k = 0; k < asked.size(); k += 16)
        tree.getRange(asked[k], 0.75, out);
      tree.findNearestEach(
          asked.size(), [&](std::size_t k) { return asked[k]; }, 2.0,
          [&](std::size_t k, const typename Tree::Neighbour& found) {
            out.push_back(static_cast<Index>(k));
            out.push_back(found.index);
          });
      return out;
    };
    const auto position = [&](std::size_t i) {
      return i % 997 == 5 ? point{std::nan(""), xyz[i].y, xyz[i].z} : xyz[i];
    };
    // The points [from, to) but every seventh.
    const auto fill = [&](Tree& tree, std::size_t from, std::size_t to, int threads) {
      const auto keep = [&](std::size_t i) { return i >= from && i % 7 != 3; };
      if (threads > 1)
        return tree.insertEach(to, threads, keep, position);
      for (std::size_t i = from; i < to; ++i)
        if (keep(i))
          tree.insert(position(i), static_cast<Index>(i));
    };
    std::vector<std::vector<Index>> byThreads;
    std::vector<std::string> reports;
    for (const int threads : {1, 2, 3}) {
      Tree tree(bbox, 4);
      CaptureStdout();
      fill(tree, 0, 100000, threads);
      tree.prepare(threads);
      std::vector<Index> seen = answers(tree);
      fill(tree, 100000, xyz.size(), threads);
      reports.push_back(GetCapturedStdout());
      tree.prepare(threads);
      const std::vector<Index> grown = answers(tree);
      seen.insert(seen.end(), grown.begin(), grown.end());
      byThreads.push_back(seen);
      EXPECT_EQ(byThreads.back(), byThreads.front()) << "kind " << kind << ", " << threads;
      EXPECT_EQ(reports.back(), reports.front()) << "kind " << kind << ", " << threads;
    }
    EXPECT_NE(reports.front().find("out of bounds"), std::string::npos);
  }
}

// The first queries after the insertions build the tree's division; when they come from many
// threads at once, one builds it and all answer as a single thread would.
TEST(FrameworkTrees, FirstQueriesFromManyThreadsAgree) {
  const auto xyz = makeCloud(true, 20000, 4);
  auto bbox = std::make_shared<Vantor::BoundingBox>();
  for (const point& p : xyz)
    bbox->expand(p);
  auto fill = [&](Vantor::OcTree<unsigned>& tree) {
    for (unsigned i = 0; i < xyz.size(); ++i)
      tree.insert(xyz[i], i);
  };
  Vantor::OcTree<unsigned> serialTree(bbox, 8), parallelTree(bbox, 8);
  fill(serialTree);
  fill(parallelTree);
  std::vector<unsigned> serial(xyz.size()), parallel(xyz.size());
  double squaredDistance = 0;
  for (std::size_t i = 0; i < xyz.size(); ++i)
    serialTree.findNearest(xyz[i], 1.0, serial[i], squaredDistance);
#pragma omp parallel for num_threads(4) schedule(dynamic, 16)
  for (long long i = 0; i < static_cast<long long>(xyz.size()); ++i) {
    double d2 = 0;
    parallelTree.findNearest(xyz[i], 1.0, parallel[i], d2);
  }
  EXPECT_EQ(serial, parallel);
}

TEST(FrameworkTrees, OcTreeAndQuadTreeOverABoundingBox) {
  auto box = std::make_shared<Vantor::BoundingBox>(point{0, 0, 0}, point{10, 10, 10});
  Vantor::OcTree<unsigned> octree(box, 64);
  Vantor::QuadTree<unsigned> quadtree(box, 64);
  const std::vector<point> xyz = {{1, 1, 1}, {1, 1, 5}, {2, 1, 1}, {9, 9, 9}};
  for (unsigned i = 0; i < xyz.size(); ++i) {
    octree.insert(xyz[i], i);
    quadtree.insert(xyz[i], i);
  }
  EXPECT_TRUE(octree.valid());
  EXPECT_EQ(octree.size(), 4u);

  std::multimap<double, unsigned> found;
  octree.getRange(point{1, 1, 1.5}, 1.2, found);
  EXPECT_EQ(found, (std::multimap<double, unsigned>{{0.25, 0}, {1.25, 2}}));
  found.clear();
  quadtree.getRange(point{1, 1, 1.5}, 1.2, found); // planimetric: z is ignored
  EXPECT_EQ(found, (std::multimap<double, unsigned>{{0.0, 0}, {0.0, 1}, {1.0, 2}}));

  unsigned nearest = 99;
  double squaredDistance = -1;
  ASSERT_TRUE(quadtree.findNearest(point{1, 1, 7}, 0.5, nearest, squaredDistance));
  EXPECT_EQ(nearest, 0u); // of two equally near entries, the first in tree order
  ASSERT_TRUE(octree.findNearest(point{1, 1, 7}, 5.0, nearest, squaredDistance));
  EXPECT_EQ(nearest, 1u);
  EXPECT_EQ(squaredDistance, 4.0);

  Vantor::OcTree<unsigned> none(nullptr, 64);
  Vantor::QuadTree<unsigned> empty(std::make_shared<Vantor::BoundingBox>(), 64);
  EXPECT_FALSE(none.valid());
  EXPECT_FALSE(empty.insert(point{1, 1, 1}, 0));
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_FALSE(none.findNearest(point{1, 1, 1}, 5.0, nearest, squaredDistance));

  // More nearest asked for than the tree holds: all of them; none for a NaN or an empty tree.
  std::vector<double> nearestK(6, -1.0);
  nearestK.resize(quadtree.nearestSquared(point{1, 1, 7}, 6, nearestK.data()));
  EXPECT_EQ(nearestK, (std::vector<double>{0.0, 0.0, 1.0, 128.0}));
  EXPECT_EQ(octree.nearestSquared(point{std::nan(""), 1, 1}, 2, nearestK.data()), 0u);
  EXPECT_EQ(empty.nearestSquared(point{1, 1, 1}, 2, nearestK.data()), 0u);
}

TEST(FrameworkTrees, QuadTreeRectanglesAreClosed) {
  Tressel::MemArray<1, point> positions(
      Tressel::MultiIndex<1>(4),
      {point{0, 0, 1}, point{0.100000001, 0, 2}, point{0.1000001, 0, 3}, point{0, -0.1, 4}});
  auto box = std::make_shared<Vantor::BoundingBox>(point{-1, -1, 0}, point{1, 1, 5});
  auto tree = Tressel::createQuadTree<unsigned long long>(positions.view(), 4, box);
  ASSERT_EQ(tree->size(), 4u);
  // A half width of 0.1 rounded to single precision (0.100000001490116) reaches the second
  // point, which lies farther than the double 0.1.
  const double h = static_cast<double>(static_cast<float>(0.1));
  std::vector<unsigned long long> found;
  tree->getRectangle(point{-h, -h, 0}, point{h, h, 0}, found);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, (std::vector<unsigned long long>{0, 1, 3}));

  EXPECT_FALSE(Tressel::createQuadTree<unsigned long long>(positions.view(), 4, nullptr)->valid());
}

} // namespace
