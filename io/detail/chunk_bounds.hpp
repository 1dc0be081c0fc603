// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the bounds of the chunks of LAZ files decoded in this process, so that later box reads
// of the same file (the buffers a catalogue reads from its neighbours, again and again) decode
// only the chunks that can meet the box.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel::Las::detail {

// A file as it is now: a file rewritten since is another file.
struct FileKey {
  std::string path;
  std::uint64_t size = 0;
  std::int64_t modified = 0; // nanoseconds

  // The key of the file at path; nullopt when it cannot be looked at.
  static std::optional<FileKey> of(const std::string& path);
  auto operator<=>(const FileKey&) const = default;
};

// Smallest x, y, z, then largest x, y, z of a chunk's points.
using Bounds = std::array<double, 6>;

// The bounds of every one of the count chunks of the file, once all have been noted.
std::optional<std::vector<Bounds>> knownBounds(const FileKey& file, std::size_t count);
// Notes the bounds of some of the file's count chunks: (chunk index, bounds).
void noteBounds(const FileKey& file, std::size_t count,
                const std::vector<std::pair<std::size_t, Bounds>>& bounds);

} // namespace Quorvel::Las::detail
