// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, base: parts of the libraries that are opened only when first used, so that
// a program which never reads a bundle or a raster never loads HDF5 or GDAL.
#pragma once

#include <string>

namespace Basalt {

// The address of the function `entry` of the shared object `file`, which lies in the directory
// of the library that holds `anchor` (any function of the library that asks: the build tree and
// an installed tree alike keep the two side by side). The object is opened once and stays open.
// Throws std::runtime_error naming the file and the loader's words when it cannot be opened or
// lacks the function.
void* moduleEntry(const std::string& file, const char* entry, const void* anchor);

} // namespace Basalt
