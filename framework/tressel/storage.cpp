// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: the default storage policy.
#include "tressel/storage.hpp"

namespace Tressel {

bool StorageTransformations::isSaveableField(const FieldID&, const Field&,
                                             const Basalt::WeakPtr<Grid>&, const std::string&,
                                             double, const std::string&, const SkeletonID&) {
  return true;
}

bool StorageTransformations::EnableNumericalShift(const std::string&,
                                                  const StrongPtr<Basalt::ChunkBase>&) const {
  return false;
}

bool StorageTransformations::WriteAsSinglePrecision(const std::string&,
                                                    const StrongPtr<Basalt::ChunkBase>&) const {
  return false;
}

bool holdsPoints(const Basalt::ChunkBase& chunk) {
  return chunk.elementType() == typeid(Vantor::PhysicalSpace::point) ||
         chunk.elementType() == typeid(Vantor::PhysicalSpace::FloatPoint);
}

} // namespace Tressel
