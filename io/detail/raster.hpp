// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the raster readers and writers share: GDAL set up once, and the cells of a
// raster grid back.
#pragma once

#include "io/raster.hpp"
#include "quorvel/raster/detail/pixels.hpp"

#include <memory>
#include <string>
#include <vector>

class GDALDataset;

namespace Quorvel::Raster::detail {

// Registers GDAL's drivers once and keeps its messages off standard error (ours name the file).
void registerDrivers();

// A GDAL dataset closed (and so flushed) when dropped.
struct DatasetCloser {
  void operator()(GDALDataset* d) const;
};
using Dataset = std::unique_ptr<GDALDataset, DatasetCloser>;

// Throws Las::Error "<path>: <problem>".
[[noreturn]] void fail(const std::string& path, const std::string& problem);
// GDAL's last error message, or otherwise when it has none.
std::string gdalError(const std::string& otherwise);

// The pixels of a raster grid (without its filling); throws Las::Error naming path when the grid
// is not a raster or lacks the fields.
Pixels pixelsOf(const Tressel::Grid& raster, const std::string& heightField,
                const std::string& path);

} // namespace Quorvel::Raster::detail
