// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: grids, their skeletons and charts.
#pragma once

#include "basalt/attributes.hpp"
#include "basalt/intercube.hpp"
#include "tressel/representation.hpp"

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Tressel {

// A coordinate system of a grid, such as "StandardCartesianChart3D".
class Chart : public Basalt::ReferenceBase {
public:
  Chart(std::string name, int dimension, unsigned flags)
      : name_(std::move(name)), dimension_(dimension), flags_(flags) {}
  const std::string& Name() const { return name_; }
  int dimension() const { return dimension_; }
  unsigned flags() const { return flags_; }

private:
  std::string name_;
  int dimension_;
  unsigned flags_;
};

// Names a skeleton: the topological dimension of its cells (0 for vertices) and its index depth
// (the refinement level it belongs to).
class SkeletonID {
public:
  constexpr SkeletonID(int dimension = 0, int depth = 0) : dimension_(dimension), depth_(depth) {}
  constexpr int dimension() const { return dimension_; }
  constexpr int depth() const { return depth_; }
  // "Skeleton<dimension>_<depth>", for example "Skeleton0_0" for the vertices.
  std::string Name() const;
  friend constexpr auto operator<=>(const SkeletonID&, const SkeletonID&) = default;

private:
  int dimension_;
  int depth_;
};

// The grid's topology at one dimension: its representations, one per chart.
class Skeleton : public Basalt::ReferenceBase {
public:
  explicit Skeleton(SkeletonID id) : id_(id) {}
  const SkeletonID& id() const { return id_; }

  StrongPtr<Representation> getRepresentation(const std::string& chartName) const;
  StrongPtr<Representation> makeRepresentation(const std::string& chartName);
  // Visits every field of every representation; the callback gets the chart name the
  // representation lives in (its base space), the representation, the field ID and the field,
  // and returns false to stop.
  using FieldVisitor =
      std::function<bool(const std::string& baseSpace, const StrongPtr<Representation>&,
                         const StrongPtr<FieldID>&, const StrongPtr<Field>&)>;
  bool iterate_fields(const FieldVisitor& visit) const;
  // The representations in creation order.
  std::vector<StrongPtr<Representation>> representations() const;

private:
  SkeletonID id_;
  mutable std::mutex mutex_;
  std::vector<StrongPtr<Representation>> representations_;
};

// All skeletons of a grid, ordered by ID.
class SkeletonMap {
public:
  // The vertices (dimension 0) at the given index depth, or empty.
  StrongPtr<Skeleton> findVertices(int depth = 0) const;
  StrongPtr<Skeleton> getSkeleton(const SkeletonID& id) const;
  StrongPtr<Skeleton> makeSkeleton(const SkeletonID& id);
  // Visits the skeletons in ID order; the callback returns false to stop.
  bool iterate(const std::function<bool(const SkeletonID&, const StrongPtr<Skeleton>&)>& f) const;

private:
  mutable std::mutex mutex_;
  std::map<SkeletonID, StrongPtr<Skeleton>> skeletons_;
};

// A point cloud or raster: charts and skeletons, each skeleton with per-chart fields. Changing
// the structure is thread-safe; different fragments may be read from several threads at once.
class Grid : public Basalt::ReferenceBase, public Basalt::Intercube {
public:
  explicit Grid(std::string name = {}) : name_(std::move(name)) {}

  const std::string& Name() const { return name_; }

  // Named values of the whole grid (for example the layout of a uniform grid); saved with it.
  Basalt::Attributes& attributes() { return attributes_; }
  const Basalt::Attributes& attributes() const { return attributes_; }
  // The charts in creation order.
  std::vector<StrongPtr<Chart>> charts() const;

  StrongPtr<Chart> findCartesianChart(const std::string& name) const;
  // Creates the chart (of dimension 3 unless given) or returns the existing one of that name.
  StrongPtr<Chart> makeCartesianChart(const std::string& name, unsigned flags = 0,
                                      int dimension = 3);

  SkeletonMap& skeletons() { return skeletons_; }
  const SkeletonMap& skeletons() const { return skeletons_; }

  // The vertices' representation in the named chart, or empty.
  StrongPtr<Representation> getCartesianRepresentation(const std::string& chartName) const;
  StrongPtr<Representation> getCartesianRepresentation(const SkeletonID& skeleton,
                                                       const std::string& chartName) const;
  // Creates (or returns) the vertices' representation in the named chart, making the chart
  // with the given dimension when it is missing.
  StrongPtr<Representation> makeCartesianRepresentation(int dimension, const std::string& chartName,
                                                        unsigned flags = 0);

  // The named field of the chart on the given skeleton (the vertices by default), or empty.
  StrongPtr<Field> getField(const StrongPtr<Chart>& chart, const std::string& fieldName,
                            const SkeletonID& skeleton = SkeletonID(0, 0)) const;
  // Short form: the named field of the vertices in the chart named representationName.
  StrongPtr<Field> operator()(const std::string& representationName,
                              const std::string& fieldName) const;
  // The "Positions" field of the vertices in "StandardCartesianChart3D", or empty.
  StrongPtr<Field> CartesianPositions() const;
  // The slot of a vertex field in "StandardCartesianChart3D": converts to the field and creates
  // it (with the "Positions" layout) when absent. Without that representation it converts to an
  // empty pointer.
  FieldProxy operator[](const std::string& fieldName) const;

private:
  std::string name_;
  mutable std::mutex mutex_;
  std::vector<StrongPtr<Chart>> charts_;
  SkeletonMap skeletons_;
  Basalt::Attributes attributes_;
};

} // namespace Tressel
