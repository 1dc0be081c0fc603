// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: LAS files (versions 1.0 to 1.4, point formats 0 to 10) to point-cloud grids and back.
#pragma once

#include "basalt/loader_progress.hpp"
#include "tressel/grid.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <new>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel::Las {

// A file that cannot be read or written; the text names the file and every problem found.
struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The Error of an allocation that failed while what (of the file at path) was read: "<path>: out
// of memory while reading <what> (the file holds <size> bytes)".
[[noreturn]] void outOfMemory(const std::string& path, const std::string& what);
// read(), an allocation failing inside it reported by outOfMemory: the file and what was read are
// named, where std::bad_alloc names neither.
template <class Read>
auto reading(const std::string& path, const std::string& what, Read&& read) -> decltype(read()) {
  try {
    return read();
  } catch (const std::bad_alloc&) {
    outOfMemory(path, what);
  }
}

// Receives each warning about a file as it arises, on the calling thread: an oddity of a file
// read that real writers produce and that is tolerated, or the version and format a file written
// moves to; the text without the file's name. io prints nothing itself: the host shows them.
using Warn = std::function<void(const std::string& text)>;

// A variable-length record (or an extended one, after the points), kept as read.
struct Vlr {
  std::uint16_t reserved = 0;
  std::string userId; // up to 16 bytes
  std::uint16_t recordId = 0;
  std::string description; // up to 32 bytes
  std::vector<std::uint8_t> data;
};

// One extra-bytes dimension: its 192-byte descriptor and what the reader made of it.
struct ExtraBytes {
  std::array<std::uint8_t, 192> descriptor{};
  std::string name;      // the field it becomes (the descriptor's name, made unique)
  int dataType = 0;      // 1 to 10: uint8, int8, uint16, int16, uint32, int32, uint64, int64,
                         // float32, float64; 0: plain bytes (type 0 or a withdrawn array type)
  int size = 0;          // bytes per point
  bool described = true; // false for record bytes that no descriptor covers
};

// The type of an extra-bytes dimension: "uint8" to "float64" for the data types 1 to 10, "bytes"
// for plain bytes.
std::string typeName(const ExtraBytes& extra);

// The public header block, as plain values.
struct Header {
  std::uint16_t fileSourceId = 0;
  std::uint16_t globalEncoding = 0;
  std::array<std::uint8_t, 16> guid{};
  std::uint8_t versionMajor = 1, versionMinor = 4;
  std::string systemId = "Quorvel";
  std::string software = "Quorvel";
  std::uint16_t day = 0, year = 0; // creation day of year (1 to 366) and year
  std::uint16_t headerSize = 375;
  std::uint32_t pointOffset = 375;
  std::uint32_t vlrCount = 0;
  std::uint8_t pointFormat = 6;
  std::uint16_t recordLength = 30;
  std::uint64_t pointCount = 0;
  std::array<double, 3> scale{0.001, 0.001, 0.001};
  std::array<double, 3> offset{0, 0, 0};
  std::array<double, 3> max{0, 0, 0}, min{0, 0, 0};
  std::uint64_t waveformStart = 0;
  std::uint64_t evlrOffset = 0;
  std::uint32_t evlrCount = 0;
};

// What a LAS file holds besides the points, kept for writing back.
struct FileInfo {
  Header header;
  std::vector<Vlr> vlrs;
  std::vector<Vlr> evlrs;
  std::vector<ExtraBytes> extraBytes;
};

struct ReadResult {
  FileInfo info; // the same as fileInfo(*grid), for convenience
  Basalt::StrongPtr<Tressel::Grid> grid;
};

// Reads a LAS file into a point-cloud grid: "Positions" (scale and offset applied), "Intensity",
// "ReturnNumber", "NumberOfReturns", the flags, "Classification" (the whole byte for formats 6
// to 10, five bits otherwise), "UserData", "PointSourceId", "GpsTime", "Overlap",
// "ScannerChannel", "NIR", the wave-packet values, every extra-bytes dimension under its own name
// and type, then "ScanAngle" (degrees), "LastReturn", "PointIndex" (the place of the point in the
// file; only in tiles, since one fragment holds the points in file order) and "RGB". Normals as
// PDAL and CloudCompare write them, the dimensions "NormalX", "NormalY" and "NormalZ" of float32
// or float64, become one field "NormalVector" of vectors in the place of "NormalX" (unless a
// dimension is named "NormalVector" itself). The header,
// VLRs and EVLRs travel on the grid as attributes (see docs/bundle-format.md), so a bundle keeps
// them. One fragment when fragmentPoints is 0 (no result then depends on tiling); otherwise x-y
// tiles of about fragmentPoints points (Tressel::tilePartitionByCount), file order kept within a
// tile. Throws Error naming the file and every problem found; warnings about tolerated oddities go
// to warn ("legacy point count 5 differs from the point count 9", ...).
//
// only, when not empty, names the fields to make besides "Positions" (and "PointIndex" for
// tiles), normals as "NormalVector": a cloud that is read to be searched, not written back, then
// takes less memory and time. The LAS origin is still attached.
ReadResult read(const std::string& path, std::size_t fragmentPoints = 0,
                const Basalt::StrongPtr<Basalt::LoaderProgress>& progress = {},
                const std::set<std::string>& only = {}, const Warn& warn = {});

// How write() places the integer coordinates.
struct WriteOptions {
  // Per-axis scale; nullopt keeps the grid's LAS scale, or 0.001 when it has none. Finite and
  // positive.
  std::optional<std::array<double, 3>> scale;
  // Per-axis offset; nullopt keeps the grid's LAS offset, or the floor of the points' minimum
  // when it has none.
  std::optional<std::array<double, 3>> offset;
  bool autoScale = false;  // 0.001 even when the grid has a LAS scale (scale must be nullopt)
  bool autoOffset = false; // the floor of the minimum even when the grid has a LAS offset
  // Receives the change of version or format, if any ("writing LAS 1.4 point format 6 instead of
  // LAS 1.2 point format 1 (for classes above 31)").
  Warn warn;
};

// Writes a grid as LAS in file order ("PointIndex" where present, else fragment after
// fragment). The grid's LAS attributes (from read() or a bundle) give the version, point format,
// scale, offset, header fields, VLRs and EVLRs; a grid without them gets LAS 1.4 and format 6, 7
// or 8 (by RGB and NIR). A field or class that the format cannot hold moves the file to the
// smallest format (and version) that holds it, said in one line to options.warn. Per-point
// fields without a place in the record become extra-bytes dimensions; a field of vectors becomes
// three of float32, named for its name without a trailing "Vector" and X, Y, Z ("NormalVector":
// "NormalX", "NormalY", "NormalZ"), except that normals read from the origin's dimensions go
// back into them, float64 ones too. A coordinate or value that does not fit is an error, never
// truncated (a vector component only rounded to float32). The file appears only when
// completely written; a failed write leaves an earlier file intact.
void write(const std::string& path, const Tressel::Grid& grid, const WriteOptions& options = {},
           const Basalt::StrongPtr<Basalt::LoaderProgress>& progress = {});

// What a file's header and records say, and what one pass over its records tells, without
// building a grid.
struct Summary {
  Header header; // as read() takes it: a LAZ file's point format without its compression bit
  bool compressed = false; // LAZ: the point records are LASzip-compressed
  std::uint64_t pointCount = 0;
  // Points by return number as the header states them, [0] for return 1: 15 counts for LAS 1.4,
  // else 5.
  std::vector<std::uint64_t> headerReturns;
  // Points by return number as the records hold them, [r] for return number r (0 to 15).
  std::array<std::uint64_t, 16> returnCounts{};
  // The records as the file stores them, the "laszip encoded" record of a LAZ file included.
  std::vector<Vlr> vlrs, evlrs;
  std::vector<ExtraBytes> extraBytes;
  // The fields read() makes (in one fragment), in its order: name and element type ("uint8",
  // "point", ...).
  std::vector<std::pair<std::string, std::string>> fields;
  std::array<double, 3> min{0, 0, 0}, max{0, 0, 0}; // of the points (zeros when there are none)
  std::array<std::uint64_t, 256> classCounts{};     // points per "Classification" value
  // The smallest and largest GPS time of the points; nullopt when the format has no GPS time or
  // the file no points.
  std::optional<std::array<double, 2>> gpsTime;
};

// Summarizes a file: header checks as read(), then one pass over the mapped records (a LAZ
// file's chunks decoded in parallel, each passed over as it comes) reading only coordinates,
// classes, return numbers and GPS times. Warnings go to warn as read() gives them.
Summary summarize(const std::string& path, const Warn& warn = {});

// The file slot of each point from its "PointIndex" values in layout order (fragment after
// fragment): the values themselves when they are a permutation of 0..n-1, else their ranks, ties
// in layout order, so that points removed or merged leave no gaps. The one rule of file order
// for writing and for anything that reads fields in file order.
std::vector<std::uint64_t> filePlaces(std::vector<std::uint64_t> indices);

// Whether info holds coordinate-system records (the WKT, 2112, or GeoTIFF keys, 34735 to 34737):
// without them a file has no coordinate system, which is known without opening GDAL.
bool hasCoordinateSystemRecords(const FileInfo& info);

// The LAS origin a grid carries as attributes; nullopt when it has none.
std::optional<FileInfo> fileInfo(const Tressel::Grid& grid);

// Puts info on the grid as attributes (replacing any LAS attributes it had).
void setFileInfo(Tressel::Grid& grid, const FileInfo& info);

} // namespace Quorvel::Las
