// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: point-cloud files of either kind, LAS or bundle, told apart by their extension (in
// any case).
#pragma once

#include "io/las.hpp"

#include "tressel/grid.hpp"

#include <set>
#include <string>

namespace Quorvel {
struct PointCloudSizeReductionParameterBox;
} // namespace Quorvel

namespace Quorvel::Files {

// Whether a path is "-": LAS through standard input (load) or standard output (save), by way of
// a temporary file.
bool isStream(const std::string& path);
// Whether a path names a bundle (.h5, .hdf5) rather than a LAS file.
bool isBundle(const std::string& path);
// Whether a path names a point-cloud file the hosts write: LAS (.las), LAZ (.laz) or a bundle.
bool isCloudFile(const std::string& path);
// Whether a path names a LAZ file (.laz, .copc.laz), which the LAS writers compress.
bool isLaz(const std::string& path);
// Whether a path names a COPC file (.copc.laz), whose points a writer orders anew.
bool isCopc(const std::string& path);
// Whether a path names a GeoTIFF (.tif, .tiff), the raster file the hosts write.
bool isGeoTiff(const std::string& path);

// Reads the grid of a bundle of one grid (loadBundle), a text or PLY file (io/text.hpp), LAS from
// standard input ("-"), or a LAS file as Las::read does (fragmentPoints, only and warn apply to
// LAS files). Throws Las::Error naming the file and the problem.
Basalt::StrongPtr<Tressel::Grid>
load(const std::string& path, std::size_t fragmentPoints = 0,
     const Basalt::StrongPtr<Basalt::LoaderProgress>& progress = {},
     const std::set<std::string>& only = {}, const Las::Warn& warn = {});

// Reads the grid named `grid` of a bundle, or its only grid when the name is empty; a bundle of
// several grids without a name, or without a grid of that name, is refused with the names it
// holds. A cloud with a NaN or infinite position is refused with the first such point.
Basalt::StrongPtr<Tressel::Grid> loadBundle(const std::string& path, const std::string& grid = {});

// Writes a grid as a bundle (every field as it is, positions in double precision), as text or
// PLY (every column, io/text.hpp), as LAS to standard output ("-") or as LAS (Las::write with
// options); the file is replaced only once completely written. Throws
// Las::Error naming the file and the problem.
void save(const std::string& path, const Basalt::StrongPtr<Tressel::Grid>& grid,
          const Las::WriteOptions& options = {},
          const Basalt::StrongPtr<Basalt::LoaderProgress>& progress = {});

// Writes reducedPointCloud(grid, box) to path with save(path, reduced, options): a bundle for
// ".h5" and ".hdf5", LAS otherwise. Returns "reduced <in> points to <kept> (<share>%)" on success;
// on failure "ERROR: " and the reason, also appended to box.message.
std::string reduceSizeOfPointCloud(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                   PointCloudSizeReductionParameterBox& box,
                                   const std::string& path, const Las::WriteOptions& options = {});

} // namespace Quorvel::Files
