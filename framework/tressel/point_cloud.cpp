// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: point clouds from plain arrays.
#include "tressel/point_cloud.hpp"

#include "tressel/bounding_boxes.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <utility>

namespace Tressel {

Partition sequentialPartition(std::size_t count, std::size_t fragmentSize) {
  Partition out;
  if (fragmentSize == 0)
    fragmentSize = std::max<std::size_t>(count, 1);
  for (std::size_t start = 0; start < count; start += fragmentSize) {
    std::vector<std::size_t> fragment(std::min(fragmentSize, count - start));
    for (std::size_t i = 0; i < fragment.size(); ++i)
      fragment[i] = start + i;
    out.push_back(std::move(fragment));
  }
  return out;
}

namespace {

// The x-y extent of the points with finite x and y; false when there is none.
bool finiteExtent(const std::vector<point>& positions, double& x0, double& y0, double& x1,
                  double& y1) {
  constexpr double inf = std::numeric_limits<double>::infinity();
  x0 = y0 = inf;
  x1 = y1 = -inf;
  for (const point& p : positions)
    if (std::isfinite(p.x) && std::isfinite(p.y)) {
      x0 = std::min(x0, p.x);
      y0 = std::min(y0, p.y);
      x1 = std::max(x1, p.x);
      y1 = std::max(y1, p.y);
    }
  return x0 <= x1;
}

} // namespace

Partition tilePartitionByCount(const std::vector<point>& positions, std::size_t pointsPerTile) {
  double x0, y0, x1, y1;
  if (pointsPerTile == 0 || pointsPerTile >= positions.size() ||
      !finiteExtent(positions, x0, y0, x1, y1))
    return sequentialPartition(positions.size(), 0);
  // Square tiles, as many as the count asks for; a strip (all x or all y nearly alike: a scan
  // line, a wall seen from above) is cut along its length only, and one x-y position is one tile.
  const double width = x1 - x0, depth = y1 - y0;
  const double tiles =
      std::ceil(static_cast<double>(positions.size()) / static_cast<double>(pointsPerTile));
  double side = std::sqrt(width * depth / tiles);
  if (!(side < std::min(width, depth)))
    side = std::max(width, depth) / tiles;
  if (!(side > 0.0))
    return sequentialPartition(positions.size(), 0);
  // A hair wider, so that the farthest points do not open a row or column of their own.
  return tilePartition(positions, side * (1.0 + 1e-9));
}

Partition tilePartition(const std::vector<point>& positions, double tileSize) {
  if (!(tileSize > 0.0) || !std::isfinite(tileSize))
    return sequentialPartition(positions.size(), 0);
  double x0, y0, x1, y1;
  const bool anyFinite = finiteExtent(positions, x0, y0, x1, y1);
  // Tile (row, column) of a point; the clamp keeps the conversion defined for absurd counts.
  auto tileIndex = [tileSize](double v, double origin) {
    return static_cast<std::size_t>(std::min(std::floor((v - origin) / tileSize), 9.0e15));
  };
  const std::size_t columns = anyFinite ? tileIndex(x1, x0) + 1 : 0;
  const std::size_t rows = anyFinite ? tileIndex(y1, y0) + 1 : 0;

  // Each point gets a tile number: row-major over the tile grid when that grid is small enough
  // to count in an array (the usual case), otherwise through a sorted map of the used tiles.
  constexpr std::size_t NonFinite = std::numeric_limits<std::size_t>::max();
  constexpr std::size_t DenseLimit = std::size_t(1) << 22;
  const bool dense = anyFinite && columns <= DenseLimit / rows;
  std::vector<std::size_t> tileOf(positions.size(), NonFinite);
  std::map<std::pair<std::size_t, std::size_t>, std::size_t> sparse;
  for (std::size_t i = 0; i < positions.size(); ++i) {
    const point& p = positions[i];
    if (!std::isfinite(p.x) || !std::isfinite(p.y))
      continue;
    const std::size_t row = tileIndex(p.y, y0), column = tileIndex(p.x, x0);
    tileOf[i] = dense ? row * columns + column : sparse.try_emplace({row, column}, 0).first->second;
  }
  std::size_t tileCount = dense ? rows * columns : 0;
  if (!dense) {
    for (auto& [key, number] : sparse)
      number = tileCount++;
    for (std::size_t i = 0; i < positions.size(); ++i)
      if (tileOf[i] != NonFinite)
        tileOf[i] = sparse.at({tileIndex(positions[i].y, y0), tileIndex(positions[i].x, x0)});
  }

  std::vector<std::size_t> counts(tileCount, 0);
  std::vector<std::size_t> nonFinite;
  for (std::size_t i = 0; i < positions.size(); ++i)
    if (tileOf[i] == NonFinite)
      nonFinite.push_back(i);
    else
      ++counts[tileOf[i]];
  std::vector<std::size_t> fragmentOf(tileCount, NonFinite);
  Partition out;
  for (std::size_t t = 0; t < tileCount; ++t)
    if (counts[t] > 0) {
      fragmentOf[t] = out.size();
      out.emplace_back().reserve(counts[t]);
    }
  for (std::size_t i = 0; i < positions.size(); ++i)
    if (tileOf[i] != NonFinite)
      out[fragmentOf[tileOf[i]]].push_back(i);
  if (!nonFinite.empty())
    out.push_back(std::move(nonFinite));
  return out;
}

PointCloudBuilder::PointCloudBuilder(std::vector<point> positions) : count_(positions.size()) {
  addField(PositionsFieldName, std::move(positions));
}

namespace {

// The grid of a point cloud: one fragment ID per fragment, and per column a field whose array for
// fragment k is arrayOf(column, k) (a field without fragments is typed by prototypeOf(column));
// every fragment of "Positions" gets its stored bounding box, its points gone through on
// `threads` threads.
template <class NameOf, class ArrayOf, class PrototypeOf>
StrongPtr<Grid> makeCloud(const std::string& gridName, std::size_t fragments, std::size_t columns,
                          const NameOf& nameOf, const ArrayOf& arrayOf,
                          const PrototypeOf& prototypeOf, int threads) {
  auto grid = std::make_shared<Grid>(gridName);
  auto rep = grid->makeCartesianRepresentation(3, StandardCartesianChart3D);
  auto layout = std::make_shared<FragmentIDCollection>();
  std::vector<StrongPtr<FragmentID>> ids;
  for (std::size_t k = 0; k < fragments; ++k)
    ids.push_back(layout->makeFragmentID("fragment_" + std::to_string(k)));
  for (std::size_t c = 0; c < columns; ++c) {
    const std::string& name = nameOf(c);
    StrongPtr<Field> field;
    for (std::size_t k = 0; k < fragments; ++k) {
      const StrongPtr<MemBase> data = arrayOf(c, k);
      if (!field)
        field = rep->makeField(rep->makeFieldID(name), layout, *data);
      auto creator = field->setPersistentData(data, ids[k]);
      if (name == PositionsFieldName) {
        StrongPtr<BoundingBox> box;
        ExpandBBox(box, creator, BBoxStore, threads);
      }
    }
    if (!field)
      rep->makeField(rep->makeFieldID(name), layout, *prototypeOf(c));
  }
  return grid;
}

} // namespace

StrongPtr<Grid> PointCloudBuilder::build(const Partition& partition,
                                         const std::string& gridName) const {
  std::vector<unsigned char> seen(count_, 0);
  for (std::size_t k = 0; k < partition.size(); ++k)
    for (std::size_t i : partition[k]) {
      if (i >= count_)
        throw std::invalid_argument("fragment " + std::to_string(k) + " names point " +
                                    std::to_string(i) + " of " + std::to_string(count_));
      if (seen[i]++)
        throw std::invalid_argument("point " + std::to_string(i) + " is in more than one fragment");
    }
  for (std::size_t i = 0; i < count_; ++i)
    if (!seen[i])
      throw std::invalid_argument("point " + std::to_string(i) + " is in no fragment");

  return makeCloud(
      gridName, partition.size(), fields_.size(),
      [&](std::size_t c) -> const std::string& { return fields_[c].name; },
      [&](std::size_t c, std::size_t k) { return fields_[c].gather(partition[k]); },
      [&](std::size_t c) { return fields_[c].gather({}); }, 1);
}

FragmentArrays::FragmentArrays(std::vector<std::size_t> fragmentSizes)
    : sizes_(std::move(fragmentSizes)) {}

namespace {

// A new rank-1 array of size elements of the named type; throws for a type without a maker.
StrongPtr<MemBase> makeArray(const std::string& field, const std::string& typeName,
                             std::size_t size) {
  auto array = MemBase::create(1, typeName, {size});
  if (!array)
    throw std::invalid_argument("field \"" + field + "\": no arrays of " + typeName);
  return array;
}

} // namespace

std::vector<std::uint8_t*> FragmentArrays::addField(const std::string& name,
                                                    const std::string& typeName) {
  Column column{name, {}, makeArray(name, typeName, 0)};
  std::vector<std::uint8_t*> out;
  for (std::size_t size : sizes_) {
    column.arrays.push_back(makeArray(name, typeName, size));
    out.push_back(static_cast<std::uint8_t*>(column.arrays.back()->myChunk()->rawData()));
  }
  columns_.push_back(std::move(column));
  return out;
}

void FragmentArrays::borrowField(const std::string& name, const std::string& typeName,
                                 const void* data, const Basalt::BlockKeeper& keeper) {
  Column column{name, {}, makeArray(name, typeName, 0)};
  const std::size_t bytes = column.prototype->elementType().size();
  const auto* at = static_cast<const std::uint8_t*>(data);
  for (std::size_t size : sizes_) {
    column.arrays.push_back(column.prototype->borrowing({size}, at, keeper));
    at += size * bytes;
  }
  columns_.push_back(std::move(column));
}

StrongPtr<Grid> FragmentArrays::build(const std::string& gridName, int threads) const {
  return makeCloud(
      gridName, sizes_.size(), columns_.size(),
      [&](std::size_t c) -> const std::string& { return columns_[c].name; },
      [&](std::size_t c, std::size_t k) { return columns_[c].arrays[k]; },
      [&](std::size_t c) { return columns_[c].prototype; }, threads);
}

} // namespace Tressel
