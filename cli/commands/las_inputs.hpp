// quorvel host: LAS and LAZ files joined or split record by record (tile, merge): every input
// opened and checked against the first before anything is written, then read in batches.
#pragma once

#include "io/stream.hpp"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Cli {

class LasInputs {
public:
  // Opens every file; throws Error naming the files when one cannot be read or differs from the
  // first in point format, record layout or coordinate system.
  // box, when given, keeps only the points inside it.
  LasInputs(const std::vector<std::string>& paths, const std::optional<Las::Box>& box);

  // What the outputs take: the first input's header, VLRs and EVLRs.
  const Las::FileInfo& first() const { return readers_.front()->info(); }
  const std::string& firstPath() const { return readers_.front()->path(); }
  bool compressed() const { return readers_.front()->compressed(); }
  // The points the headers give, for progress.
  std::uint64_t pointCount() const;

  // Hands every record of every input, in order and in batches, to use(path, records, count),
  // its coordinates in the first input's scale and offset.
  void forEachBatch(
      const std::function<void(const std::string&, const std::uint8_t*, std::size_t)>& use);

private:
  std::vector<std::unique_ptr<Las::Reader>> readers_;
};

// The name of an output file of a format a user chose (las, laz or copc), with its extension.
std::string withFormat(const std::string& stem, const std::string& format);

} // namespace Quorvel::Cli
