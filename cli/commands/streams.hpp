// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: how the commands that stream files (tile, merge) read and write them.
#pragma once

#include "cli/host.hpp"
#include "io/tiles.hpp"

namespace Quorvel::Cli {

// The host's warnings (each said once per file), the common --box, and coordinate systems compared
// by what GDAL makes of them (the same EPSG code, or the same WKT), so that one system written two
// ways is one.
Las::StreamSettings streamSettings(const Common& common);

} // namespace Quorvel::Cli
