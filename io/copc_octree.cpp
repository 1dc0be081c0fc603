// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the octree of a COPC file written here. The root cube encloses the points; each
// node keeps at most one point per cell of a grid of Cells^3 cells over its cube, up to
// NodePoints points, and hands the rest to its children; a node with at most NodePoints points
// left keeps them all and has no children, and so does every node at level MaxLevel (points
// that stay together down there, such as many copies of one point, all end in one leaf).
// Points are sorted once along a Morton curve of the finest cells; every level is then one pass
// over the points still unplaced, in that order.
#include "io/detail/copc.hpp"
#include "quorvel/spatial/spatial.hpp"

#include "io/laz/common.hpp"

#include <algorithm>
#include <cmath>

namespace Quorvel::Copc {

namespace {

constexpr int Cells = 128;   // cells per axis of a node's sampling grid
constexpr int CellBits = 7;  // log2(Cells)
constexpr int MaxLevel = 14; // the deepest level: 2^21 finest cells per axis
constexpr int FineBits = MaxLevel + CellBits;
constexpr std::uint64_t NodePoints = 20000; // the most points a node keeps above MaxLevel

struct Coded {
  std::uint64_t code; // Morton code of the point's finest cell: x, y, z bits interleaved
  std::uint64_t index;
};

std::int32_t gather(std::uint64_t v) { // every third bit back to consecutive ones
  v &= 0x1249249249249249ull;
  v = (v ^ (v >> 2)) & 0x10C30C30C30C30C3ull;
  v = (v ^ (v >> 4)) & 0x100F00F00F00F00Full;
  v = (v ^ (v >> 8)) & 0x1F0000FF0000FFull;
  v = (v ^ (v >> 16)) & 0x1F00000000FFFFull;
  v = (v ^ (v >> 32)) & 0x1FFFFF;
  return static_cast<std::int32_t>(v);
}

// Sorts by code, ties in input order: least significant digit first, 11 bits a pass.
void radixSort(std::vector<Coded>& items) {
  std::vector<Coded> other(items.size());
  for (int shift = 0; shift < 3 * FineBits; shift += 11) {
    std::vector<std::size_t> counts(2049, 0);
    for (const Coded& c : items)
      ++counts[((c.code >> shift) & 2047) + 1];
    if (counts[((items.empty() ? 0 : items[0].code >> shift) & 2047) + 1] == items.size())
      continue; // one digit for all: nothing to move
    for (std::size_t d = 1; d < counts.size(); ++d)
      counts[d] += counts[d - 1];
    for (const Coded& c : items)
      other[counts[(c.code >> shift) & 2047]++] = c;
    items.swap(other);
  }
}

// The root cube around the points' extent (the quantized coordinates, as stored).
Info rootCube(const std::uint8_t* records, std::uint64_t count, std::size_t recordLength,
              const std::array<double, 3>& scale, const std::array<double, 3>& offset) {
  std::array<std::int32_t, 3> lo{0, 0, 0}, hi{0, 0, 0};
  for (std::uint64_t i = 0; i < count; ++i)
    for (int a = 0; a < 3; ++a) {
      const auto v = Laz::load<std::int32_t>(records + i * recordLength + 4 * a);
      lo[a] = i == 0 ? v : std::min(lo[a], v);
      hi[a] = i == 0 ? v : std::max(hi[a], v);
    }
  Info info;
  for (int a = 0; a < 3; ++a) {
    const double low = lo[a] * scale[a] + offset[a], high = hi[a] * scale[a] + offset[a];
    info.center[a] = (low + high) / 2;
    info.halfsize = std::max(info.halfsize, (high - low) / 2);
  }
  // A single place still needs a cube: one of a few scale steps.
  if (info.halfsize == 0)
    info.halfsize = std::max({scale[0], scale[1], scale[2]});
  info.spacing = 2 * info.halfsize / Cells;
  return info;
}

std::vector<Coded> finestCells(const std::uint8_t* records, std::uint64_t count,
                               std::size_t recordLength, const Info& info,
                               const std::array<double, 3>& scale,
                               const std::array<double, 3>& offset) {
  constexpr double Fine = double(std::uint64_t(1) << FineBits);
  std::vector<Coded> out(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    std::uint64_t code = 0;
    for (int a = 0; a < 3; ++a) {
      const double v =
          Laz::load<std::int32_t>(records + i * recordLength + 4 * a) * scale[a] + offset[a];
      const double t = (v - (info.center[a] - info.halfsize)) / (2 * info.halfsize) * Fine;
      const auto cell = static_cast<std::uint64_t>(std::clamp(t, 0.0, Fine - 1));
      code |= spreadBits(cell) << a;
    }
    out[i] = {code, i};
  }
  return out;
}

// Shares the points of one node at level (items, all of its subtree still unplaced) between the
// node (appended to the tree) and its children (appended to rest).
void shareNode(const Coded* items, std::size_t count, int level, Octree& tree,
               std::vector<Coded>& rest) {
  const std::uint64_t node = items[0].code >> (3 * (FineBits - level));
  Octree::Run run{
      {level, gather(node), gather(node >> 1), gather(node >> 2)}, tree.order.size(), 0};
  const bool leaf = count <= NodePoints || level == MaxLevel;
  const int cellShift = 3 * (FineBits - level - CellBits);
  for (std::size_t i = 0; i < count; ++i) {
    const bool newCell = i == 0 || (items[i].code >> cellShift) != (items[i - 1].code >> cellShift);
    if (leaf || (newCell && run.count < NodePoints)) {
      tree.order.push_back(items[i].index);
      ++run.count;
    } else
      rest.push_back(items[i]);
  }
  tree.runs.push_back(run);
}

} // namespace

Octree buildOctree(const std::uint8_t* records, std::uint64_t count, std::size_t recordLength,
                   const std::array<double, 3>& scale, const std::array<double, 3>& offset) {
  Octree tree;
  tree.info = rootCube(records, count, recordLength, scale, offset);
  std::vector<Coded> unplaced = finestCells(records, count, recordLength, tree.info, scale, offset);
  radixSort(unplaced);
  tree.order.reserve(count);
  std::vector<Coded> rest;
  for (int level = 0; level <= MaxLevel && !unplaced.empty(); ++level) {
    rest.clear();
    const int nodeShift = 3 * (FineBits - level);
    for (std::size_t a = 0, b = 0; a < unplaced.size(); a = b) {
      // A node's points are consecutive: they share the top bits of the code.
      const std::uint64_t node = unplaced[a].code >> nodeShift;
      for (b = a + 1; b < unplaced.size() && (unplaced[b].code >> nodeShift) == node; ++b) {
      }
      shareNode(unplaced.data() + a, b - a, level, tree, rest);
    }
    unplaced.swap(rest);
  }
  return tree;
}

} // namespace Quorvel::Copc
