// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS and LAZ files read and written in batches of records, so that files of any size
// pass with bounded memory, and the points of a box read without building the rest.
#pragma once

#include "io/las.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Las {

// A closed box: x0 <= x <= x1 and y0 <= y <= y1, and z0 <= z <= z1 when z is given.
struct Box {
  double x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  std::optional<std::array<double, 2>> z;

  bool contains(double x, double y, double zz) const {
    return x >= x0 && x <= x1 && y >= y0 && y <= y1 && (!z || (zz >= (*z)[0] && zz <= (*z)[1]));
  }
};

// The box of 4 numbers, x0, y0, x1, y1, or 6 with z0, z1; throws std::invalid_argument saying
// what is wrong: another count, a number that is not finite, a lower edge above its upper one.
Box boxOf(const std::vector<double>& values);

// Records of a file, one after another, recordLength bytes each, as the file holds them (a LAZ
// file's decoded); valid until the reader's next call.
struct Batch {
  const std::uint8_t* records = nullptr;
  std::size_t count = 0;
};

// Reads a LAS or LAZ file in batches of records in file order. Only the batch in hand is in
// memory: LAS records are read through the mapping and the pages passed are released; a LAZ
// file's chunks are decoded in parallel, a group at a time. Throws Error naming the file.
class Reader {
public:
  explicit Reader(const std::string& path, const Warn& warn = {});
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  const std::string& path() const;
  // As read() takes it: a LAZ file's point format without its compression bit and its VLRs
  // without the "laszip encoded" record.
  const FileInfo& info() const;
  bool compressed() const;
  // From now on only the records whose point lies in box; a LAZ file's chunks that cannot meet
  // it (by a COPC file's hierarchy) are not decoded.
  void restrict(const Box& box);
  // The next records; count 0 once all are read.
  Batch next();

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Writes a LAS file, or a LAZ file when the path ends in ".laz", from batches of records of one
// point format and record length. info gives the version, point format, record length, scale,
// offset, the other header fields, the VLRs and the EVLRs; the counts, the bounds and the points
// by return are those of the records appended. The file is written beside its target and
// appears only when finish() completes; a writer dropped before leaves an earlier file intact.
class Writer {
public:
  Writer(const std::string& path, const FileInfo& info);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  void append(const std::uint8_t* records, std::size_t count);
  // Appends count records that fill(out) writes straight into the writer's buffer: records
  // gathered from elsewhere are copied once.
  void append(std::size_t count, const std::function<void(std::uint8_t* out)>& fill);
  // A LAZ file's points appended so far are compressed now, as a smaller chunk, so that what
  // waits for compression stays small when many files are written at once. Nothing for LAS.
  void flush();
  // Points appended and not yet written.
  std::size_t pending() const;
  std::uint64_t pointCount() const;
  void finish();

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// info with one more extra-bytes dimension after the others: name, of type ("uint8" to
// "float64"), in records longer by its size.
FileInfo withDimension(const FileInfo& info, const std::string& name, const std::string& type);

// Reads only the points of a LAS or LAZ file that lie in box, as read() would give them in one
// fragment (the same fields and LAS attributes), in file order.
ReadResult read(const std::string& path, const Box& box, const Warn& warn = {});

} // namespace Quorvel::Las
