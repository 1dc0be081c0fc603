// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: how the commands that stream files read and write them.
#include "cli/commands/streams.hpp"

#include "io/raster.hpp"

#include <memory>
#include <set>
#include <string>

namespace Quorvel::Cli {

Las::StreamSettings streamSettings(const Common& common) {
  Las::StreamSettings settings;
  settings.box = common.box;
  // A file is opened more than once (checked against the others, then read): each of its
  // warnings is said once.
  auto said = std::make_shared<std::set<std::string>>();
  settings.readWarnings = [said](const std::string& path) -> Las::Warn {
    return [said, path](const std::string& text) {
      if (said->insert(path + text).second)
        readWarnings(path)(text);
    };
  };
  settings.writeWarnings = writeWarnings;
  settings.crsName = Raster::coordinateSystemKey;
  return settings;
}

} // namespace Quorvel::Cli
