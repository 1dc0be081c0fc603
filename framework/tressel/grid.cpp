// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: grids, skeletons and charts.
#include "tressel/grid.hpp"

namespace Tressel {

std::string SkeletonID::Name() const {
  return "Skeleton" + std::to_string(dimension_) + "_" + std::to_string(depth_);
}

StrongPtr<Representation> Skeleton::getRepresentation(const std::string& chartName) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& rep : representations_)
    if (rep->chartName() == chartName)
      return rep;
  return nullptr;
}

StrongPtr<Representation> Skeleton::makeRepresentation(const std::string& chartName) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& rep : representations_)
    if (rep->chartName() == chartName)
      return rep;
  representations_.push_back(std::make_shared<Representation>(chartName));
  return representations_.back();
}

std::vector<StrongPtr<Representation>> Skeleton::representations() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return representations_;
}

bool Skeleton::iterate_fields(const FieldVisitor& visit) const {
  std::vector<StrongPtr<Representation>> reps;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reps = representations_;
  }
  for (const auto& rep : reps)
    for (const auto& [id, field] : rep->snapshot())
      if (!visit(rep->chartName(), rep, id, field))
        return false;
  return true;
}

StrongPtr<Skeleton> SkeletonMap::findVertices(int depth) const {
  return getSkeleton(SkeletonID(0, depth));
}

StrongPtr<Skeleton> SkeletonMap::getSkeleton(const SkeletonID& id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = skeletons_.find(id);
  return it == skeletons_.end() ? nullptr : it->second;
}

StrongPtr<Skeleton> SkeletonMap::makeSkeleton(const SkeletonID& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto& slot = skeletons_[id];
  if (!slot)
    slot = std::make_shared<Skeleton>(id);
  return slot;
}

bool SkeletonMap::iterate(
    const std::function<bool(const SkeletonID&, const StrongPtr<Skeleton>&)>& f) const {
  std::map<SkeletonID, StrongPtr<Skeleton>> copy;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    copy = skeletons_;
  }
  for (const auto& [id, skeleton] : copy)
    if (!f(id, skeleton))
      return false;
  return true;
}

StrongPtr<Chart> Grid::findCartesianChart(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& chart : charts_)
    if (chart->Name() == name)
      return chart;
  return nullptr;
}

std::vector<StrongPtr<Chart>> Grid::charts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return charts_;
}

StrongPtr<Chart> Grid::makeCartesianChart(const std::string& name, unsigned flags, int dimension) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& chart : charts_)
    if (chart->Name() == name)
      return chart;
  charts_.push_back(std::make_shared<Chart>(name, dimension, flags));
  return charts_.back();
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const std::string& chartName) const {
  return getCartesianRepresentation(SkeletonID(0, 0), chartName);
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const SkeletonID& skeleton,
                                                           const std::string& chartName) const {
  if (!findCartesianChart(chartName))
    return nullptr;
  auto s = skeletons_.getSkeleton(skeleton);
  return s ? s->getRepresentation(chartName) : nullptr;
}

StrongPtr<Representation>
Grid::makeCartesianRepresentation(int dimension, const std::string& chartName, unsigned flags) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    bool found = false;
    for (const auto& chart : charts_)
      found = found || chart->Name() == chartName;
    if (!found)
      charts_.push_back(std::make_shared<Chart>(chartName, dimension, flags));
  }
  return skeletons_.makeSkeleton(SkeletonID(0, 0))->makeRepresentation(chartName);
}

StrongPtr<Field> Grid::getField(const StrongPtr<Chart>& chart, const std::string& fieldName,
                                const SkeletonID& skeleton) const {
  if (!chart)
    return nullptr;
  auto rep = getCartesianRepresentation(skeleton, chart->Name());
  return rep ? rep->findField(fieldName) : nullptr;
}

StrongPtr<Field> Grid::operator()(const std::string& representationName,
                                  const std::string& fieldName) const {
  return getField(findCartesianChart(representationName), fieldName);
}

StrongPtr<Field> Grid::CartesianPositions() const {
  return (*this)(StandardCartesianChart3D, PositionsFieldName);
}

FieldProxy Grid::operator[](const std::string& fieldName) const {
  return FieldProxy(getCartesianRepresentation(StandardCartesianChart3D), fieldName);
}

} // namespace Tressel
