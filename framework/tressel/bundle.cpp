// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: bundles, their slices and grids; the files themselves are read
// and written by the bundle module (bundle_file.cpp), opened on first use.
#include "tressel/bundle.hpp"

#include "tressel/detail/bundle_file.hpp"

#include "basalt/module.hpp"
#include "basalt/replacing_file.hpp"
#include "basalt/text.hpp"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace Tressel {

namespace detail {

const BundleFiles& bundleFiles() {
  static const BundleFiles* const files = [] {
    using Entry = const BundleFiles* (*)();
    const auto anchor = reinterpret_cast<const void*>(&bundleFiles);
    return reinterpret_cast<Entry>(
        Basalt::moduleEntry("libquorvel_bundle.so", "quorvelBundleFiles", anchor))();
  }();
  return *files;
}

} // namespace detail

bool openBundleModule() {
  try {
    detail::bundleFiles();
    return true;
  } catch (...) { // NOLINT(bugprone-empty-catch): said again by the first bundle
    return false;
  }
}

StrongPtr<Grid> Slice::operator[](const std::string& gridName) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = grids_.find(gridName);
  return it == grids_.end() ? nullptr : it->second;
}

void Slice::setGrid(const std::string& gridName, const StrongPtr<Grid>& grid) {
  std::lock_guard<std::mutex> lock(mutex_);
  grids_[gridName] = grid;
}

std::vector<std::string> Slice::gridNames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  for (const auto& [name, grid] : grids_)
    names.push_back(name);
  return names;
}

bool Bundle::fail(const std::string& what) {
  error_ = "bundle file " + path_ + ": " + what;
  return false;
}

bool Bundle::bindToNew(const std::string& path, const StrongPtr<StorageTransformations>& policy) {
  path_ = path;
  policy_ = policy;
  error_.clear();
  const auto directory = std::filesystem::absolute(path).parent_path();
  std::error_code code;
  if (!std::filesystem::is_directory(directory, code))
    return fail("directory " + directory.string() + " does not exist");
  return true;
}

bool Bundle::bindTo(const std::string& path) {
  path_ = path;
  return load();
}

bool Bundle::load() {
  slices_.clear();
  error_.clear();
  std::error_code code;
  if (!std::filesystem::exists(path_, code))
    return fail("no such file");
  if (!std::filesystem::is_regular_file(path_, code))
    return fail("not a regular file");
  if (::access(path_.c_str(), R_OK) != 0)
    return fail(std::string("cannot be read: ") + std::strerror(errno));
  try {
    slices_ = detail::bundleFiles().read(path_);
  } catch (const std::exception& e) {
    return fail(e.what());
  }
  return true;
}

bool Bundle::save() {
  if (path_.empty())
    return fail("no file bound");
  StorageTransformations fallback;
  try {
    const detail::BundleFiles& files = detail::bundleFiles();
    Basalt::ReplacingFile output(path_);
    files.write(output.temporary(), slices_, policy_ ? *policy_ : fallback);
    output.commit();
  } catch (const Basalt::ReplacingFile::Error& e) {
    return fail("not written: " + e.problem);
  } catch (const std::exception& e) {
    return fail(std::string("not written: ") + e.what());
  }
  error_.clear();
  return true;
}

std::vector<GridIdentifier> Bundle::getGridIdentifiers() const {
  std::vector<GridIdentifier> out;
  for (const auto& [time, slice] : slices_)
    for (const auto& name : slice->gridNames())
      out.push_back({time, slice->name(), name});
  return out;
}

StrongPtr<Slice> Bundle::operator[](double time) {
  auto& slot = slices_[time];
  if (!slot)
    slot = std::make_shared<Slice>(time, Basalt::format("t%.17g", time));
  return slot;
}

StrongPtr<Slice> Bundle::findSlice(double time) const {
  auto it = slices_.find(time);
  return it == slices_.end() ? nullptr : it->second;
}

std::vector<StrongPtr<Slice>> Bundle::slices() const {
  std::vector<StrongPtr<Slice>> out;
  for (const auto& [time, slice] : slices_)
    out.push_back(slice);
  return out;
}

} // namespace Tressel
