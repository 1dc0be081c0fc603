// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: ground rasters as the mapping commands take them: loaded from a file, with the
// cell size and fragment size the raster itself records, and prepared.
#pragma once

#include "cli/host.hpp"
#include "quorvel/raster/raster.hpp"

#include <CLI/App.hpp>

#include <string>
#include <vector>

namespace Quorvel::Cli {

// The bands of --bands, "low:high=class;...", and of --class-bands,
// "low:high=from:to=class;..."; throw CLI::ValidationError naming the option on a malformed text
// or a class outside 0 to 255.
std::vector<HeightBand> heightBands(const std::string& option, const std::string& text);
std::vector<ClassConditionalBand> classConditionalBands(const std::string& option,
                                                        const std::string& text);

// Sets the box's cell size and fragment size from the raster's uniform layout; throws Error
// naming the file when the grid is not a regularly fragmented raster.
void takeRasterLayout(const Tressel::Grid& raster, const std::string& path,
                      MapRasterOnPointCloudParameterBox& box);
// The same for the first grid of a raster file.
void takeRasterLayout(const std::string& path, MapRasterOnPointCloudParameterBox& box);

// Loads the raster file (or takes the raster of that name that a pipeline stage made beside
// the cloud), takes its layout and prepares it; throws Error naming the file when preparation
// fails.
Basalt::StrongPtr<Tressel::Grid> loadRaster(const std::string& path, const Host& host,
                                            MapRasterOnPointCloudParameterBox& box,
                                            const Cloud* beside = nullptr);

} // namespace Quorvel::Cli
