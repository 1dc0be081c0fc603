// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: the policy that decides how grids are written to files.
#pragma once

#include "basalt/chunk.hpp"
#include "tressel/grid.hpp"

#include <string>

namespace Tressel {

// Asked by the bundle writer per field whether to write it, and per data chunk whether to store
// point data shifted by a numerical offset (kept as an attribute and added back on load) and
// whether to store it in single precision (after the shift). The base policy writes every
// field unchanged.
class StorageTransformations : public Basalt::ReferenceBase {
public:
  virtual bool isSaveableField(const FieldID& id, const Field& field,
                               const Basalt::WeakPtr<Grid>& grid, const std::string& gridName,
                               double time, const std::string& sliceName,
                               const SkeletonID& skeleton);
  virtual bool EnableNumericalShift(const std::string& fieldName,
                                    const StrongPtr<Basalt::ChunkBase>& chunk) const;
  virtual bool WriteAsSinglePrecision(const std::string& fieldName,
                                      const StrongPtr<Basalt::ChunkBase>& chunk) const;
};

// True for chunks of three-dimensional points, in double or in single precision.
bool holdsPoints(const Basalt::ChunkBase& chunk);

} // namespace Tressel
