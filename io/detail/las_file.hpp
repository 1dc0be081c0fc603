// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: a LAS file opened for reading: mapped once, its header, VLRs, EVLRs and extra-bytes
// dimensions checked and decoded, its point records in place.
#pragma once

#include "io/detail/las_formats.hpp"
#include "io/las.hpp"
#include "io/laz/laz.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quorvel::Las::detail {

// A read-only mapping of a whole file.
class MappedFile {
public:
  // sequential: the pages are read as they are touched, in order, instead of all at once.
  MappedFile(const std::string& path, bool sequential);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  const std::uint8_t* data() const { return data_; }
  std::uint64_t size() const { return size_; }
  // Gives back the memory of the pages wholly inside [from, to): read once and passed, they
  // would otherwise stay resident as long as the mapping.
  void release(std::uint64_t from, std::uint64_t to) const;

private:
  const std::uint8_t* data_ = nullptr;
  std::uint64_t size_ = 0;
  void* mapping_ = nullptr;
};

struct OpenedFile {
  // Opens and checks the file; the warnings of the checks go to warn.
  OpenedFile(const std::string& path, bool sequential, const Warn& warn);

  MappedFile file;
  FileInfo info;
  // pointCount records of info.header.recordLength bytes; for a compressed file, only once
  // decodeAll() has run.
  const std::uint8_t* records = nullptr;
  std::uint64_t pointCount = 0;
  // The compressed (LAZ) points of the file. The header's point format then has its compression
  // bit cleared and the "laszip encoded" record is left out of the VLRs, as in the LAS file the
  // points came from.
  std::optional<Laz::Points> laz;

  // Decodes a compressed file's records into one buffer, where records then points.
  void decodeAll();
  // Errors of decoding, named with the file.
  template <class Run>
  void decoding(Run run) const {
    try {
      run();
    } catch (const std::runtime_error& e) {
      throw Error(path_ + ": " + e.what());
    }
  }

private:
  void openCompressed();
  std::string path_;
  std::vector<std::uint8_t> decoded_;
};

// A field the reader makes: name, kind (or a framework type name for the grouped fields).
struct FieldPlan {
  std::string name;
  std::string type;
};
// The fields read() makes of a file, in its order; "PointIndex" only when tiled.
std::vector<FieldPlan> fieldsOf(const FileInfo& info, bool tiled);

} // namespace Quorvel::Las::detail
