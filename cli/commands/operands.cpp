// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: the files that operands name.
#include "cli/commands/operands.hpp"

#include "cli/host.hpp"
#include "io/files.hpp"

#include <algorithm>
#include <filesystem>

namespace Quorvel::Cli {

namespace {

std::vector<std::string> filesIn(const std::string& directory) {
  std::error_code error;
  std::vector<std::string> found;
  for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error))
    if (Files::isCloudFile(it->path().string()) && it->is_regular_file(error))
      found.push_back(it->path().string());
  if (error)
    throw Error(directory + ": cannot list the directory: " + error.message());
  if (found.empty())
    throw Error(directory +
                ": no LAS, LAZ or bundle files (.las, .laz, .h5, .hdf5) in the directory");
  std::sort(found.begin(), found.end());
  return found;
}

} // namespace

std::vector<std::string> filesOf(const std::vector<std::string>& operands) {
  std::vector<std::string> files;
  for (const std::string& operand : operands) {
    std::error_code error;
    const auto more = std::filesystem::is_directory(operand, error)
                          ? filesIn(operand)
                          : std::vector<std::string>{operand};
    files.insert(files.end(), more.begin(), more.end());
  }
  return files;
}

} // namespace Quorvel::Cli
