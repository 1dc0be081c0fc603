// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: how the commands that stream files (tile, merge) read and write them.
#pragma once

#include "cli/host.hpp"
#include "io/tiles.hpp"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Quorvel::Cli {

// The host's warnings (each said once per file), the common --box, and coordinate systems compared
// by what GDAL makes of them (the same EPSG code, or the same WKT), so that one system written two
// ways is one.
Las::StreamSettings streamSettings(const Common& common);

// The warnings about the files a run writes, for a run of many files (tiles): a text is said with
// the first file it concerns, and once more at the end with the count of the other files, where
// saying it for each would bury the rest under thousands of equal lines.
class WrittenWarnings {
public:
  // What warns about the file at path; the settings' writeWarnings.
  Las::Warn operator()(const std::string& path) const;
  // Says each text that other files repeated, with their count.
  void finish() const;

private:
  struct Said {
    std::mutex mutex;
    std::vector<std::string> texts; // in the order first said
    std::map<std::string, std::size_t> repeats;
  };
  std::shared_ptr<Said> said_ = std::make_shared<Said>();
};

} // namespace Quorvel::Cli
