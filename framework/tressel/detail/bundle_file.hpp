// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: reading and writing bundle files, the part of the bundle code
// that needs HDF5. It is a module of its own (libquorvel_bundle.so, bundle_file.cpp) that the
// bundle opens the first time it reads or writes a file.
#pragma once

#include "tressel/bundle.hpp"

#include <map>
#include <string>

namespace Tressel::detail {

using Slices = std::map<double, StrongPtr<Slice>>;

// The module's functions. Both throw std::exception with the problem (without the file's name,
// which the bundle's message puts first).
struct BundleFiles {
  // The slices of an existing, readable bundle file.
  Slices (*read)(const std::string& path);
  // Writes slices to a new file at path through the storage policy.
  void (*write)(const std::string& path, const Slices& slices, StorageTransformations& policy);
};

// The module's functions, the module opened on the first call. Throws std::runtime_error naming
// the module and why it cannot be opened.
const BundleFiles& bundleFiles();

} // namespace Tressel::detail

// What the module exports: its functions.
extern "C" const Tressel::detail::BundleFiles* quorvelBundleFiles();
