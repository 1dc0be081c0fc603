// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the storage policy of written results.
#include "quorvel/storage/storage.hpp"

namespace Wexlin {

MyStorage::~MyStorage() = default;

bool MyStorage::isSaveableField(const Tressel::FieldID& id, const Tressel::Field&,
                                const Basalt::WeakPtr<Tressel::Grid>&, const std::string&, double,
                                const std::string&, const Tressel::SkeletonID&) {
  return !saveableFields || saveableFields->contains(id.Name());
}

bool MyStorage::EnableNumericalShift(const std::string&,
                                     const Basalt::StrongPtr<Basalt::ChunkBase>& chunk) const {
  return numericalShift && chunk && Tressel::holdsPoints(*chunk);
}

bool MyStorage::WriteAsSinglePrecision(const std::string& fieldName,
                                       const Basalt::StrongPtr<Basalt::ChunkBase>& chunk) const {
  return writeSinglePrecision && fieldName == "Positions" && chunk && Tressel::holdsPoints(*chunk);
}

} // namespace Wexlin
