// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the storage policy used when results are written back to bundle files.
#pragma once

#include "basalt/string_list.hpp"
#include "tressel/storage.hpp"

namespace Wexlin {

// Writes the fields named in saveableFields (every field while it is empty), stores any point
// data shifted when numericalShift is set, and stores "Positions" (and only a field of exactly
// that name) in single precision when writeSinglePrecision is set.
class MyStorage : public Tressel::StorageTransformations {
public:
  ~MyStorage() override;

  bool isSaveableField(const Tressel::FieldID& id, const Tressel::Field& field,
                       const Basalt::WeakPtr<Tressel::Grid>& grid, const std::string& gridName,
                       double time, const std::string& sliceName,
                       const Tressel::SkeletonID& skeleton) override;
  bool EnableNumericalShift(const std::string& fieldName,
                            const Basalt::StrongPtr<Basalt::ChunkBase>& chunk) const override;
  bool WriteAsSinglePrecision(const std::string& fieldName,
                              const Basalt::StrongPtr<Basalt::ChunkBase>& chunk) const override;

  bool writeSinglePrecision = false;                    // permits float positions
  bool numericalShift = false;                          // permits shifted point data
  Basalt::StrongPtr<Basalt::StringList> saveableFields; // names to write; empty: all
};

} // namespace Wexlin
