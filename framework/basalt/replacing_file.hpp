// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, base: writing a file so that it replaces its target only when complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace Basalt {

// A file written beside its target and renamed over it by commit() only when complete; dropped
// before that, or killed by SIGINT, SIGTERM or SIGHUP, it is removed and an earlier file stays
// as it was. The target is where a symbolic link leads (the link stays a link); a target that
// exists must be a regular file we may write, and keeps its permissions (and, where the system
// allows, its owner). Temporaries that a killed earlier run left beside the same target are
// removed. Errors throw ReplacingFile::Error, whose text names the file and the problem.
class ReplacingFile {
public:
  struct Error : std::runtime_error {
    Error(const std::string& path, const std::string& problem)
        : std::runtime_error(path + ": " + problem), problem(problem) {}
    std::string problem; // the text without the file's name
  };

  explicit ReplacingFile(const std::string& path);
  ~ReplacingFile();
  ReplacingFile(const ReplacingFile&) = delete;
  ReplacingFile& operator=(const ReplacingFile&) = delete;

  // The file the temporary replaces: the path given, or where its links lead.
  const std::string& target() const { return target_; }
  // The temporary, for writers that open files by name (HDF5, GDAL); it exists, empty.
  const std::string& temporary() const { return temporary_; }

  void write(const std::uint8_t* data, std::size_t size);
  void writeAt(std::uint64_t at, const std::uint8_t* data, std::size_t size);
  // Puts the temporary in the target's place.
  void commit();

private:
  [[noreturn]] void fail(const std::string& problem) const;
  // Where the temporary replaces a file: queues for the disk what write() appended since the last
  // call, once there is enough of it.
  void queueWriteback();

  std::string path_, target_, temporary_;
  int fd_ = -1;
  int slot_ = -1; // where the temporary is listed for the signal handler
  bool keepMode_ = false;
  unsigned mode_ = 0, owner_ = 0, group_ = 0;
  bool committed_ = false;
  std::uint64_t written_ = 0; // bytes written by write(), where the next one goes
  std::uint64_t queued_ = 0;  // bytes before this queued for the disk
};

} // namespace Basalt
