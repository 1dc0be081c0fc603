// Quorvel framework, data model: point clouds from plain arrays.
#include "tressel/PointCloud.hpp"

#include "tressel/BoundingBoxes.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

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

Partition tilePartition(const std::vector<point>& positions, double tileSize) {
  if (!(tileSize > 0.0) || !std::isfinite(tileSize))
    return sequentialPartition(positions.size(), 0);
  double x0 = std::numeric_limits<double>::infinity(), y0 = x0;
  for (const point& p : positions)
    if (std::isfinite(p.x) && std::isfinite(p.y)) {
      x0 = std::min(x0, p.x);
      y0 = std::min(y0, p.y);
    }
  // Tile keys as (row, column); tile indices beyond 2^53 cannot occur for finite tileSize
  // fragments of real clouds, and a clamp keeps the conversion defined for absurd ones.
  auto tileIndex = [tileSize](double v, double origin) {
    const double t = std::floor((v - origin) / tileSize);
    return static_cast<long long>(std::min(t, 9.0e15));
  };
  std::map<std::pair<long long, long long>, std::vector<std::size_t>> tiles;
  std::vector<std::size_t> nonFinite;
  for (std::size_t i = 0; i < positions.size(); ++i) {
    const point& p = positions[i];
    if (!std::isfinite(p.x) || !std::isfinite(p.y))
      nonFinite.push_back(i);
    else
      tiles[{tileIndex(p.y, y0), tileIndex(p.x, x0)}].push_back(i);
  }
  Partition out;
  out.reserve(tiles.size() + 1);
  for (auto& [key, indices] : tiles)
    out.push_back(std::move(indices));
  if (!nonFinite.empty())
    out.push_back(std::move(nonFinite));
  return out;
}

PointCloudBuilder::PointCloudBuilder(std::vector<point> positions) : count_(positions.size()) {
  addField(PositionsFieldName, std::move(positions));
}

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

  auto grid = std::make_shared<Grid>(gridName);
  auto rep = grid->makeCartesianRepresentation(3, StandardCartesianChart3D);
  auto layout = std::make_shared<FragmentIDCollection>();
  std::vector<StrongPtr<FragmentID>> ids;
  for (std::size_t k = 0; k < partition.size(); ++k)
    ids.push_back(layout->makeFragmentID("fragment_" + std::to_string(k)));

  for (const Column& column : fields_) {
    StrongPtr<Field> field;
    for (std::size_t k = 0; k < partition.size(); ++k) {
      auto data = column.gather(partition[k]);
      if (!field)
        field = rep->makeField(rep->makeFieldID(column.name), layout, *data);
      auto creator = field->setPersistentData(data, ids[k]);
      if (column.name == PositionsFieldName) {
        StrongPtr<BoundingBox> box;
        ExpandBBox(box, creator, BBoxStore);
      }
    }
    if (!field) // no fragments: the field still exists, typed by an empty array
      field = rep->makeField(rep->makeFieldID(column.name), layout, *column.gather({}));
  }
  return grid;
}

} // namespace Tressel
