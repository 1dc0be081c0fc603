// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: how the commands that stream files read and write them.
#include "cli/commands/streams.hpp"

#include "io/raster.hpp"

namespace Quorvel::Cli {

Las::StreamSettings streamSettings(const Common& common) {
  Las::StreamSettings settings;
  settings.box = common.box;
  settings.readWarnings = readWarnings;
  settings.writeWarnings = writeWarnings;
  settings.crsName = Raster::coordinateSystemKey;
  return settings;
}

} // namespace Quorvel::Cli
