// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: bundles, the time slices of grids bound to a file.
#pragma once

#include "tressel/grid.hpp"
#include "tressel/storage.hpp"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Tressel {

// The grids of one moment, by name.
class Slice : public Basalt::ReferenceBase {
public:
  Slice(double time, std::string name) : time_(time), name_(std::move(name)) {}

  double time() const { return time_; }
  const std::string& name() const { return name_; }
  // The grid of that name, or empty.
  StrongPtr<Grid> operator[](const std::string& gridName) const;
  void setGrid(const std::string& gridName, const StrongPtr<Grid>& grid);
  // Grid names in alphabetical order.
  std::vector<std::string> gridNames() const;

private:
  double time_;
  std::string name_;
  mutable std::mutex mutex_;
  std::map<std::string, StrongPtr<Grid>> grids_;
};

struct GridIdentifier {
  double time;
  std::string slice;
  std::string grid;
};

// Opens the bundle module (HDF5) now, as the first bundle read or written would: for a run that
// will surely need it, on a thread of its own while it does other work. False when it cannot be
// opened; the first bundle then says why.
bool openBundleModule();

// Time slices of grids, bound to a bundle file (HDF5; the layout is in docs/bundle-format.md).
//
// bindTo reads a whole file eagerly and validates it before any grid is visible: a missing,
// truncated, non-HDF5 or foreign file leaves the bundle empty, and lastError() names the file
// and what is wrong. save writes every slice through the storage policy into a temporary file
// beside the target and renames it over the target only when all is written, so a failed write
// never damages an existing file. Bundles are used from one thread at a time.
class Bundle : public Basalt::ReferenceBase {
public:
  Bundle() = default;

  // Binds to a file that save() will (re)write with the given policy (the base policy when
  // empty). Nothing is written yet. False when the directory does not exist.
  bool bindToNew(const std::string& path, const StrongPtr<StorageTransformations>& policy);
  // Binds to an existing bundle file and loads it. False, with lastError(), on any problem.
  bool bindTo(const std::string& path);
  // Loads the bound file again, replacing the slices held. On failure no slice is kept.
  bool load();
  // Writes all slices to the bound file. False, with lastError(), when nothing could be written;
  // an existing file then stays as it was.
  bool save();

  void setStoragePolicy(const StrongPtr<StorageTransformations>& policy) { policy_ = policy; }
  const std::string& path() const { return path_; }
  const std::string& lastError() const { return error_; }

  // Every grid of every slice, slices by time, grids by name.
  std::vector<GridIdentifier> getGridIdentifiers() const;
  // The slice of that time, created (named "t<time>") when missing.
  StrongPtr<Slice> operator[](double time);
  // The slice of that time, or empty.
  StrongPtr<Slice> findSlice(double time) const;
  // The slices by time.
  std::vector<StrongPtr<Slice>> slices() const;

private:
  bool fail(const std::string& what);

  std::string path_;
  std::string error_;
  StrongPtr<StorageTransformations> policy_;
  std::map<double, StrongPtr<Slice>> slices_;
};

} // namespace Tressel
