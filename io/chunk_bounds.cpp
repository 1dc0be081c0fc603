// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the bounds of LAZ chunks seen in this process.
#include "io/detail/chunk_bounds.hpp"

#include <map>
#include <mutex>
#include <sys/stat.h>

namespace Quorvel::Las::detail {

namespace {

struct Known {
  std::vector<Bounds> bounds;
  std::vector<bool> noted;
  std::size_t count = 0; // chunks noted
};

// Files are few next to their points: a chunk of 50,000 points costs 48 bytes here.
std::mutex mutex;
std::map<FileKey, Known>& known() {
  static std::map<FileKey, Known> files;
  return files;
}

} // namespace

std::optional<FileKey> FileKey::of(const std::string& path) {
  struct stat s {};
  if (::stat(path.c_str(), &s) != 0)
    return std::nullopt;
  return FileKey{path, static_cast<std::uint64_t>(s.st_size),
                 static_cast<std::int64_t>(s.st_mtim.tv_sec) * 1000000000 + s.st_mtim.tv_nsec};
}

std::optional<std::vector<Bounds>> knownBounds(const FileKey& file, std::size_t count) {
  const std::lock_guard<std::mutex> lock(mutex);
  const auto found = known().find(file);
  if (found == known().end() || found->second.bounds.size() != count ||
      found->second.count != count)
    return std::nullopt;
  return found->second.bounds;
}

void noteBounds(const FileKey& file, std::size_t count,
                const std::vector<std::pair<std::size_t, Bounds>>& bounds) {
  const std::lock_guard<std::mutex> lock(mutex);
  Known& k = known()[file];
  if (k.bounds.size() != count)
    k = {std::vector<Bounds>(count), std::vector<bool>(count, false), 0};
  for (const auto& [chunk, b] : bounds)
    if (chunk < count) {
      k.count += k.noted[chunk] ? 0 : 1;
      k.noted[chunk] = true;
      k.bounds[chunk] = b;
    }
}

} // namespace Quorvel::Las::detail
