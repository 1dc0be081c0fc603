// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS and LAZ files of any size cut into square tiles or joined into one, record by
// record through the streams of io/stream.hpp, so that memory stays bounded.
#pragma once

#include "io/stream.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Quorvel::Las {

// How files are read and written by tile() and merge().
struct StreamSettings {
  // Only the points inside the box are read.
  std::optional<Box> box;
  // The name of a file's coordinate system, the same for files of the same system ("EPSG:2229
  // (...)", "none"); empty: the coordinate-system records (WKT and GeoTIFF keys) must be equal
  // byte for byte.
  std::function<std::string(const FileInfo&)> crsName;
  // Where the warnings about a file read, or about the format a file written moves to, go.
  std::function<Warn(const std::string&path)> readWarnings, writeWarnings;
};

// LAS and LAZ files whose records join in one file: every file opened and checked against the
// first before anything is written.
class Sources {
public:
  // Throws Error naming the files when one cannot be read or differs from the first in point
  // format, extra-bytes dimensions or coordinate system. reference names the file whose header
  // the records take (the first by default): its own records then pass unchanged.
  Sources(const std::vector<std::string>& paths, const StreamSettings& settings,
          std::size_t reference = 0);
  ~Sources();

  // What outputs take: the first file's header, VLRs and EVLRs.
  const FileInfo& first() const;
  bool compressed() const; // the first file is LAZ
  // Hands every record of every file, in order and in batches, to use(records, count), the
  // coordinates in the first file's scale and offset.
  void forEachBatch(const std::function<void(const std::uint8_t*, std::size_t)>& use);
  // The same, with the place in paths of the file the records come from.
  void forEachBatchOf(
      const std::function<void(std::size_t file, const std::uint8_t*, std::size_t)>& use);

private:
  // One file is open at a time: the others keep no memory while it is read.
  std::unique_ptr<Reader> open(const std::string& path) const;

  std::vector<std::string> paths_;
  StreamSettings settings_;
  FileInfo first_;
  bool compressed_ = false;
};

struct TileOptions {
  double size = 0;                    // the side of the squares (finite, positive)
  std::array<double, 2> origin{0, 0}; // a corner of the grid of squares
  // Tiles also hold the points within buffer of their square in x and in y, marked by the
  // extra-bytes field "Buffer" (1; 0 for their own points).
  double buffer = 0;
  std::string format; // "las", "laz" or "copc"; empty: the first file's (LAS or LAZ)
};

struct TileResult {
  std::vector<std::string> files; // the tiles written, by their corners
  std::uint64_t points = 0;       // the points read
};

// Cuts the files into the squares of side size whose lower-left corners (cx, cy) are origin +
// (i, j) * size: a point goes to the square with cx <= x < cx + size, cy <= y < cy + size, each
// square's points to folder/cx_cy.EXT (cx and cy with the decimals they need). folder is made
// when missing. Tiles holding buffer points only are not written; a failed run leaves no
// partial tile. Throws Error.
TileResult tile(const std::vector<std::string>& paths, const std::string& folder,
                const TileOptions& options, const StreamSettings& settings = {});

// Joins the files into output (.las, .laz or .copc.laz), in the order given; the points written.
// Throws Error.
std::uint64_t merge(const std::vector<std::string>& paths, const std::string& output,
                    const StreamSettings& settings = {});

// Writes output (.las or .laz) from the records of the LAS or LAZ file input whose numbers in
// file order are kept (ascending), each copied as it is, with input's header, VLRs and EVLRs: the
// file that reading input whole, keeping those points and writing the cloud would give. Nothing
// is written and false returned when input holds another number of points than total (the
// cloud the numbers count was not read from it whole). Throws Error.
bool copyRecords(const std::string& input, const std::vector<std::size_t>& kept,
                 std::uint64_t total, const std::string& output);

// Writes output (.las or .laz) from every record of the LAS or LAZ file input, each with its
// class replaced by classes[i] (one per point in file order): the whole class byte of formats 6 to
// 10, the low five bits of the class byte before them, the flags above kept. The file that reading
// input whole, setting those classes and writing the cloud would give. Nothing is written and
// false returned when input holds another number of points than classes.size(), or when a class
// above 31 would need a newer point format than input's. Throws Error.
bool copyRecordsWithClasses(const std::string& input, std::span<const std::uint8_t> classes,
                            const std::string& output);

} // namespace Quorvel::Las
