// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: building point-cloud grids from plain arrays and reading
// fields back, for hosts, file readers and tests.
#pragma once

#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Tressel {

using Vantor::PhysicalSpace::point;

// Fragments as lists of point indices: fragment k holds the points partition[k], in that order.
using Partition = std::vector<std::vector<std::size_t>>;

// Consecutive blocks of at most fragmentSize points (one fragment when fragmentSize is 0).
Partition sequentialPartition(std::size_t count, std::size_t fragmentSize);

// Square x-y tiles of side tileSize, anchored at the smallest finite x and y; tiles are ordered
// by row (y) then column (x), empty tiles are left out, and points keep their input order within
// a tile. Points with a non-finite x or y form one last fragment of their own. A tileSize that
// is not positive and finite gives one fragment of all points.
Partition tilePartition(const std::vector<point>& positions, double tileSize);

// tilePartition with the tile side chosen so that a tile holds about pointsPerTile points on
// average over the x-y extent; one fragment when pointsPerTile is 0 or at least the point count.
Partition tilePartitionByCount(const std::vector<point>& positions, std::size_t pointsPerTile);

// Builds a point cloud: the chart "StandardCartesianChart3D", the vertices' representation in
// it, the field "Positions" and any number of per-point fields, all split by one partition.
// Every fragment gets its stored bounding box. Throws std::invalid_argument naming the problem
// when a field's length differs from the point count or the partition does not hold every
// point exactly once.
//
//   Tressel::PointCloudBuilder cloud(positions);
//   cloud.addField("Classification", classes);            // std::vector<unsigned char>
//   auto grid = cloud.build(Tressel::tilePartition(positions, 50.0));
class PointCloudBuilder {
public:
  explicit PointCloudBuilder(std::vector<point> positions);

  template <class T>
  PointCloudBuilder& addField(const std::string& name, std::vector<T> values) {
    if (values.size() != count_)
      throw std::invalid_argument("field \"" + name + "\" has " + std::to_string(values.size()) +
                                  " values for " + std::to_string(count_) + " points");
    auto shared = std::make_shared<const std::vector<T>>(std::move(values));
    fields_.push_back({name, [shared](const std::vector<std::size_t>& indices) {
                         Basalt::ArrayVector<T> part;
                         part.reserve(indices.size());
                         for (std::size_t i : indices)
                           part.push_back((*shared)[i]);
                         const MultiIndex<1> extent(part.size());
                         return StrongPtr<MemBase>(
                             std::make_shared<MemArray<1, T>>(extent, std::move(part)));
                       }});
    return *this;
  }

  StrongPtr<Grid> build(const Partition& partition,
                        const std::string& gridName = "PointCloud") const;

private:
  struct Column {
    std::string name;
    std::function<StrongPtr<MemBase>(const std::vector<std::size_t>&)> gather;
  };

  std::size_t count_;
  std::vector<Column> fields_;
};

// Builds a point cloud whose fragment arrays are filled in place, for file readers that decode
// straight into them: each field gets one typed array per fragment, the caller writes the values
// through the pointers returned, and build() attaches the arrays to a grid without copying them.
// Fields appear in the order they were added; "Positions" gets each fragment's stored bounding
// box when built.
//
//   Tressel::FragmentArrays cloud({fragment0Points, fragment1Points});
//   const std::vector<point*> xyz = cloud.addField<point>(Tressel::PositionsFieldName);
//   const std::vector<unsigned char*> classes = cloud.addField<unsigned char>("Classification");
//   ... xyz[k][i] = ...;
//   auto grid = cloud.build("tile");
class FragmentArrays {
public:
  explicit FragmentArrays(std::vector<std::size_t> fragmentSizes);

  const std::vector<std::size_t>& fragmentSizes() const { return sizes_; }

  // The arrays of a new field, one per fragment (value-initialised by their chunks).
  template <class T>
  std::vector<T*> addField(const std::string& name) {
    Column column{name, {}, std::make_shared<MemArray<1, T>>(MultiIndex<1>(0))};
    std::vector<T*> out;
    for (std::size_t size : sizes_) {
      auto array = std::make_shared<MemArray<1, T>>(MultiIndex<1>(size));
      out.push_back(array->data());
      column.arrays.push_back(std::move(array));
    }
    columns_.push_back(std::move(column));
    return out;
  }

  // The same for an element type known by name at run time (any type registered with
  // MemBase::registerCreator): byte pointers to the arrays, one per fragment. Throws
  // std::invalid_argument for a type without a maker.
  std::vector<std::uint8_t*> addField(const std::string& name, const std::string& typeName);
  // A field over storage it does not own: the fragments' elements one after another at data,
  // laid out as typeName, kept alive by keeper. Nothing is copied until an array is first
  // written (see Basalt::ChunkBase). Throws std::invalid_argument as addField does.
  void borrowField(const std::string& name, const std::string& typeName, const void* data,
                   const Basalt::BlockKeeper& keeper);

  // The positions' boxes are computed on `threads` threads.
  StrongPtr<Grid> build(const std::string& gridName = "PointCloud", int threads = 1) const;

private:
  struct Column {
    std::string name;
    std::vector<StrongPtr<MemBase>> arrays;
    StrongPtr<MemBase> prototype; // types the field when there are no fragments
  };
  std::vector<std::size_t> sizes_;
  std::vector<Column> columns_;
};

// A field's values as one array, fragment after fragment in layout order. Throws
// std::runtime_error when a fragment holds no array of element type T.
template <class T>
std::vector<T> readField(const Field& field) {
  std::vector<T> out;
  field.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
    const StrongPtr<const MemArray<1, T>> array =
        arrayCast<1, T>(creator ? creator->peekData() : nullptr);
    if (!array)
      throw std::runtime_error("fragment \"" + id->Name() + "\" holds no array of " +
                               TresselType<T>().name());
    out.insert(out.end(), array->data(), array->data() + array->size());
    return true;
  });
  return out;
}

// A field's values in the original point order of the partition the cloud was built with.
template <class T>
std::vector<T> readField(const Field& field, const Partition& partition) {
  const std::vector<T> flat = readField<T>(field);
  std::size_t count = 0;
  for (const auto& fragment : partition)
    count += fragment.size();
  if (flat.size() != count)
    throw std::runtime_error("field holds " + std::to_string(flat.size()) +
                             " values, the partition " + std::to_string(count));
  std::vector<T> out(count);
  std::size_t k = 0;
  for (const auto& fragment : partition)
    for (std::size_t i : fragment)
      out.at(i) = flat[k++];
  return out;
}

} // namespace Tressel
