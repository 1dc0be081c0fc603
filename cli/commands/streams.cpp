// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: how the commands that stream files read and write them.
#include "cli/commands/streams.hpp"

#include "io/raster.hpp"

#include <iostream>
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

Las::Warn WrittenWarnings::operator()(const std::string& path) const {
  return [said = said_, path](const std::string& text) {
    const std::lock_guard<std::mutex> lock(said->mutex);
    const auto [at, first] = said->repeats.emplace(text, 0);
    if (!first) {
      ++at->second;
      return;
    }
    said->texts.push_back(text);
    writeWarnings(path)(text);
  };
}

void WrittenWarnings::finish() const {
  for (const std::string& text : said_->texts)
    if (const std::size_t n = said_->repeats.at(text); n > 0)
      std::cerr << "the same for " << n << " more file" << (n == 1 ? "" : "s") << ": " << text
                << "\n";
}

} // namespace Quorvel::Cli
