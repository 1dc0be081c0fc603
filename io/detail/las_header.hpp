// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAS header codec. One table of byte offsets serves decoding and encoding; the
// checks list every problem of a header at once, each bound tested without overflow.
#pragma once

#include "io/detail/las_formats.hpp"
#include "io/las.hpp"

#include "vantor/physical_space.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Las::detail {

constexpr std::size_t VlrHeaderSize = 54;
constexpr std::size_t EvlrHeaderSize = 60;
constexpr std::size_t DescriptorSize = 192;
constexpr std::size_t SmallestHeader = 227;

// The header size of LAS 1.minor (227, 235 or 375 bytes).
std::size_t headerSizeFor(int versionMinor);

// The header as stored: Header with the counts it merges kept apart.
struct RawHeader {
  std::array<char, 4> signature{'L', 'A', 'S', 'F'};
  Header header;
  std::uint32_t legacyPointCount = 0;
  std::array<std::uint32_t, 5> legacyByReturn{};
  std::uint64_t pointCount = 0; // the 64-bit count of LAS 1.4
  std::array<std::uint64_t, 15> byReturn{};
};

// Decodes what the first size bytes hold of the header of the version they name; header.
// pointCount becomes the count a reader should use.
RawHeader decodeHeader(const std::uint8_t* bytes, std::size_t size);
// The header's points by return number, [0] for return 1: the 15 counts of LAS 1.4 where its
// 64-bit counts are the ones a reader uses (as for the point count), else the 5 legacy ones.
std::vector<std::uint64_t> pointsByReturn(const RawHeader& raw);
// Encodes the header of its version (headerSizeFor(versionMinor) bytes) into out.
void encodeHeader(const RawHeader& raw, std::uint8_t* out);

// Problems make a file unreadable; warnings name oddities that real writers produce and that
// the reader can work around.
struct Findings {
  std::vector<std::string> problems;
  std::vector<std::string> warnings;
};

// Checks a decoded header against the file size: version, sizes, format, scale and offset,
// where the VLRs, points and EVLRs lie. Compressed point data (LAZ, the format's bit 7 or 6 set,
// already cleared in raw) is not checked against the file size: its size is the chunks'.
void validate(const RawHeader& raw, std::uint64_t fileSize, Findings& findings,
              bool compressed = false);

// Reads count records from start (extended: EVLRs) that must end by end; problems name each
// record that does not fit.
std::vector<Vlr> parseRecords(const std::uint8_t* file, std::uint64_t start, std::uint64_t end,
                              std::uint64_t count, bool extended, Findings& findings);
// Appends a record as stored.
void encodeRecord(const Vlr& record, bool extended, std::vector<std::uint8_t>& out);

// The extra-bytes dimensions of a file (its "LASF_Spec" record 4, among the VLRs or EVLRs), with
// field names made unique against the format's values; problems when the descriptors do not fit
// the record or the record's length is not a whole number of descriptors.
std::vector<ExtraBytes> parseExtraBytes(const FileInfo& info, Findings& findings);
bool isExtraBytesRecord(const Vlr& record);

// The fields an extra-bytes dimension is read into: one of its type; for plain bytes one unsigned
// number of their size when that is 1, 2, 4 or 8 bytes, otherwise one uint8 per byte ("name_0",
// "name_1", ...). Offsets are within the dimension.
struct ExtraField {
  std::string name;
  Kind kind;
  int offset;
};
std::vector<ExtraField> extraFields(const ExtraBytes& extra);
// Where each extra-bytes dimension starts in a record of the point format: after the format's
// own values, one after the other.
std::vector<int> extraStarts(int pointFormat, const std::vector<ExtraBytes>& extras);

// The names a field of vectors has as three extra-bytes dimensions: the field's name without a
// trailing "Vector", then X, Y and Z ("NormalVector": "NormalX", "NormalY", "NormalZ", the names
// PDAL and CloudCompare give normals).
std::array<std::string, 3> componentNames(const std::string& field);

// Normals are read into one field of vectors instead of three of numbers.
inline const std::string NormalField = "NormalVector";
// The codecs step over vectors as three doubles in a row: component c of element j lies at byte
// 24 * j + 8 * c.
static_assert(sizeof(Vantor::PhysicalSpace::vector) == 24);

// The extra-bytes dimensions that hold the components of one field of vectors.
struct VectorDims {
  std::array<std::size_t, 3> at; // their places in the list of dimensions, for x, y and z
  // The component that dimension i holds; -1 for none.
  int component(std::size_t i) const;
};
// Where a file keeps its normals: the dimensions named for NormalField's components, each a
// float32 or float64. nullopt when one is missing or of another type, and when a dimension of
// the file is named NormalField itself (its numbers then stay as they are).
std::optional<VectorDims> normalsOf(const std::vector<ExtraBytes>& extras);

// "path: problem; problem; ..."
std::string describe(const std::string& path, const std::vector<std::string>& problems);

} // namespace Quorvel::Las::detail
