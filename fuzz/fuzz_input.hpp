// SPDX-License-Identifier: BSD-3-Clause
// Shared by the fuzz targets: standard output closed, and fuzz bytes as a text or as a file the
// readers can open by name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace Quorvel::Fuzz {

inline void quietConsole() {
  if (!std::freopen("/dev/null", "w", stdout))
    std::perror("fuzz: /dev/null");
}

inline std::string text(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// The bytes as an anonymous file in memory, open for as long as the object lives; path() names
// it for readers that open files by name.
class MemoryFile {
public:
  MemoryFile(const std::uint8_t* data, std::size_t size)
      : fd_(::memfd_create("fuzz-input", MFD_CLOEXEC)) {
    for (std::size_t done = 0; fd_ >= 0 && done < size;) {
      const ssize_t wrote = ::write(fd_, data + done, size - done);
      if (wrote <= 0)
        break;
      done += static_cast<std::size_t>(wrote);
    }
  }
  ~MemoryFile() {
    if (fd_ >= 0)
      ::close(fd_);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
  int fd_;
};

} // namespace Quorvel::Fuzz
