// SPDX-License-Identifier: BSD-3-Clause
// A small LAS parser of its own for the round-trip tests: plain little-endian reads of the public
// header block, the VLRs, the point records and the EVLRs, sharing no code with io/, so that a
// fault of the library's reader cannot hide the same fault of its writer. It keeps raw bytes
// wherever it can and compares two files property by property.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace LasBytes {

// A variable-length record before the points or an extended one after them.
struct Record {
  std::string userId; // up to the first NUL of its 16 bytes
  std::uint16_t recordId = 0;
  std::string description; // up to the first NUL of its 32 bytes
  std::vector<std::uint8_t> payload;
};

struct File {
  std::uint16_t fileSourceId = 0, globalEncoding = 0;
  std::array<std::uint8_t, 16> guid{};
  int versionMajor = 0, versionMinor = 0;
  std::string systemId, software; // up to the first NUL of their 32 bytes
  std::uint16_t day = 0, year = 0;
  int pointFormat = 0;
  std::size_t recordLength = 0;
  std::uint64_t pointCount = 0;
  std::array<double, 3> scale{}, offset{}, min{}, max{};
  std::vector<Record> vlrs, evlrs;
  std::vector<std::uint8_t> points; // pointCount records of recordLength bytes, in file order

  const std::uint8_t* record(std::uint64_t k) const { return points.data() + k * recordLength; }
  std::int32_t integer(std::uint64_t k, int axis) const;
};

// Little-endian reads at a byte position; the caller has checked the bounds.
template <class T>
T at(const std::vector<std::uint8_t>& bytes, std::size_t pos) {
  T value;
  std::memcpy(&value, bytes.data() + pos, sizeof value);
  return value;
}

inline std::int32_t File::integer(std::uint64_t k, int axis) const {
  std::int32_t value;
  std::memcpy(&value, record(k) + 4 * axis, sizeof value);
  return value;
}

inline std::string text(const std::vector<std::uint8_t>& bytes, std::size_t pos, std::size_t n) {
  std::size_t length = 0;
  while (length < n && bytes[pos + length] != 0)
    ++length;
  return {reinterpret_cast<const char*>(bytes.data() + pos), length};
}

// Where the header places the parts that follow it.
struct Layout {
  std::size_t headerSize = 0, pointOffset = 0;
  std::uint32_t vlrCount = 0, evlrCount = 0;
  std::uint64_t evlrStart = 0;
};

// The fields of the public header block into f and the places of what follows into layout; an
// empty text when the header is whole, else what is wrong.
inline std::string parseHeader(const std::vector<std::uint8_t>& bytes, File& f, Layout& layout) {
  const std::size_t size = bytes.size();
  if (size < 227 || std::memcmp(bytes.data(), "LASF", 4) != 0)
    return "not a LAS file";
  f.fileSourceId = at<std::uint16_t>(bytes, 4);
  f.globalEncoding = at<std::uint16_t>(bytes, 6);
  std::memcpy(f.guid.data(), bytes.data() + 8, 16);
  f.versionMajor = bytes[24];
  f.versionMinor = bytes[25];
  f.systemId = text(bytes, 26, 32);
  f.software = text(bytes, 58, 32);
  f.day = at<std::uint16_t>(bytes, 90);
  f.year = at<std::uint16_t>(bytes, 92);
  layout.headerSize = at<std::uint16_t>(bytes, 94);
  layout.pointOffset = at<std::uint32_t>(bytes, 96);
  layout.vlrCount = at<std::uint32_t>(bytes, 100);
  f.pointFormat = bytes[104];
  f.recordLength = at<std::uint16_t>(bytes, 105);
  f.pointCount = at<std::uint32_t>(bytes, 107);
  for (int axis = 0; axis < 3; ++axis) {
    f.scale[axis] = at<double>(bytes, 131 + 8 * axis);
    f.offset[axis] = at<double>(bytes, 155 + 8 * axis);
    f.max[axis] = at<double>(bytes, 179 + 16 * axis);
    f.min[axis] = at<double>(bytes, 187 + 16 * axis);
  }
  if (f.versionMajor == 1 && f.versionMinor >= 4) {
    if (size < 375 || layout.headerSize < 375)
      return "LAS 1.4 header shorter than 375 bytes";
    layout.evlrStart = at<std::uint64_t>(bytes, 235);
    layout.evlrCount = at<std::uint32_t>(bytes, 243);
    // The 64-bit count holds every count; the legacy one is 0 when it does not fit.
    f.pointCount = at<std::uint64_t>(bytes, 247);
  }
  if (layout.headerSize < 227 || layout.headerSize > size ||
      layout.pointOffset < layout.headerSize || layout.pointOffset > size)
    return "header size or offset to point data outside the file";
  if (f.recordLength < 20)
    return "point record length below 20 bytes";
  return {};
}

// Records (extended: the 60-byte headers after the points) from pos up to end; an empty text
// when they fit, else what does not.
inline std::string parseRecords(const std::vector<std::uint8_t>& bytes, std::uint32_t count,
                                std::size_t pos, std::size_t end, bool extended,
                                std::vector<Record>& into) {
  const std::string what = extended ? "EVLR " : "VLR ";
  const std::string limit = extended ? "the end of the file" : "the offset to point data";
  const std::size_t headerBytes = extended ? 60 : 54;
  for (std::uint32_t k = 0; k < count; ++k) {
    if (end - pos < headerBytes)
      return what + std::to_string(k) + " header past " + limit;
    Record r{text(bytes, pos + 2, 16),
             at<std::uint16_t>(bytes, pos + 18),
             text(bytes, pos + (extended ? 28 : 22), 32),
             {}};
    const std::uint64_t length =
        extended ? at<std::uint64_t>(bytes, pos + 20) : at<std::uint16_t>(bytes, pos + 20);
    pos += headerBytes;
    if (end - pos < length)
      return what + std::to_string(k) + " payload past " + limit;
    r.payload.assign(bytes.begin() + static_cast<std::ptrdiff_t>(pos),
                     bytes.begin() + static_cast<std::ptrdiff_t>(pos + length));
    pos += length;
    into.push_back(std::move(r));
  }
  return {};
}

// Parses LAS bytes; an empty error means success. Every offset and length is checked against
// the size, so a damaged file gives a message, never a read outside the buffer.
inline File parse(const std::vector<std::uint8_t>& bytes, std::string& error) {
  File f;
  Layout layout;
  const std::size_t size = bytes.size();
  error = parseHeader(bytes, f, layout);
  if (error.empty())
    error =
        parseRecords(bytes, layout.vlrCount, layout.headerSize, layout.pointOffset, false, f.vlrs);
  if (!error.empty())
    return File{};

  const std::size_t pointOffset = layout.pointOffset;
  if (f.pointCount > (size - pointOffset) / f.recordLength) {
    error = "point records past the end of the file";
    return File{};
  }
  f.points.assign(bytes.begin() + pointOffset,
                  bytes.begin() + pointOffset + f.pointCount * f.recordLength);

  if (layout.evlrCount > 0 &&
      (layout.evlrStart < pointOffset + f.points.size() || layout.evlrStart > size))
    error = "EVLR start outside the bytes after the points";
  else
    error = parseRecords(bytes, layout.evlrCount, layout.evlrStart, size, true, f.evlrs);
  return error.empty() ? f : File{};
}

inline std::vector<std::uint8_t> bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline std::string hex(const std::uint8_t* data, std::size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (std::size_t k = 0; k < n; ++k)
    out += std::string{digits[data[k] >> 4], digits[data[k] & 15], ' '};
  return out;
}

inline std::string describe(const Record& r) {
  return "\"" + r.userId + "\" " + std::to_string(r.recordId) + " \"" + r.description + "\" (" +
         std::to_string(r.payload.size()) + " bytes)";
}

// The first difference between two lists of records, or empty.
inline std::string compareRecords(const char* kind, const std::vector<Record>& a,
                                  const std::vector<Record>& b) {
  if (a.size() != b.size())
    return std::string(kind) + " count " + std::to_string(a.size()) + " became " +
           std::to_string(b.size());
  for (std::size_t k = 0; k < a.size(); ++k) {
    const Record &v = a[k], &w = b[k];
    if (v.userId != w.userId || v.recordId != w.recordId || v.description != w.description ||
        v.payload != w.payload)
      return std::string(kind) + " " + std::to_string(k) + ": " + describe(v) + " became " +
             describe(w) +
             (v.payload != w.payload && v.payload.size() == w.payload.size()
                  ? " with other payload bytes"
                  : "");
  }
  return {};
}

// The first class of difference between an input file and its copy, or empty when the copy
// keeps everything a LAS reader can see. The header's bounding box, the point counts by return
// and the offset to point data are what a writer recomputes, so they are not compared; text
// fields are compared up to their first NUL, since the bytes after it carry no meaning. The
// point records must be byte-identical: the copy has the same format, so every field, flag,
// extra byte and padding byte has the same place.
inline std::string firstDifference(const File& a, const File& b) {
  std::ostringstream out;
  out.precision(17);
  if (a.versionMajor != b.versionMajor || a.versionMinor != b.versionMinor ||
      a.pointFormat != b.pointFormat || a.recordLength != b.recordLength) {
    out << "LAS " << a.versionMajor << "." << a.versionMinor << " format " << a.pointFormat
        << " of " << a.recordLength << " bytes became LAS " << b.versionMajor << "."
        << b.versionMinor << " format " << b.pointFormat << " of " << b.recordLength << " bytes";
    return out.str();
  }
  if (a.scale != b.scale || a.offset != b.offset) {
    out << "scale " << a.scale[0] << " " << a.scale[1] << " " << a.scale[2] << " and offset "
        << a.offset[0] << " " << a.offset[1] << " " << a.offset[2] << " became scale " << b.scale[0]
        << " " << b.scale[1] << " " << b.scale[2] << " and offset " << b.offset[0] << " "
        << b.offset[1] << " " << b.offset[2];
    return out.str();
  }
  if (a.systemId != b.systemId || a.software != b.software || a.fileSourceId != b.fileSourceId ||
      a.globalEncoding != b.globalEncoding || a.guid != b.guid || a.day != b.day ||
      a.year != b.year) {
    out << "header identity: system \"" << a.systemId << "\" software \"" << a.software
        << "\" source " << a.fileSourceId << " encoding " << a.globalEncoding << " GUID "
        << hex(a.guid.data(), 16) << "day " << a.day << "/" << a.year << " became system \""
        << b.systemId << "\" software \"" << b.software << "\" source " << b.fileSourceId
        << " encoding " << b.globalEncoding << " GUID " << hex(b.guid.data(), 16) << "day " << b.day
        << "/" << b.year;
    return out.str();
  }
  if (auto vlr = compareRecords("VLR", a.vlrs, b.vlrs); !vlr.empty())
    return vlr;
  if (auto evlr = compareRecords("EVLR", a.evlrs, b.evlrs); !evlr.empty())
    return evlr;
  if (a.pointCount != b.pointCount) {
    out << a.pointCount << " points became " << b.pointCount;
    return out.str();
  }
  std::uint64_t moved = 0, changed = 0, firstMoved = 0, firstChanged = 0;
  for (std::uint64_t k = 0; k < a.pointCount; ++k) {
    if (std::memcmp(a.record(k), b.record(k), 12) != 0 && moved++ == 0)
      firstMoved = k;
    if (std::memcmp(a.record(k) + 12, b.record(k) + 12, a.recordLength - 12) != 0 && changed++ == 0)
      firstChanged = k;
  }
  if (moved > 0) {
    out << moved << " of " << a.pointCount << " points have other integer coordinates; point "
        << firstMoved << ": " << a.integer(firstMoved, 0) << " " << a.integer(firstMoved, 1) << " "
        << a.integer(firstMoved, 2) << " became " << b.integer(firstMoved, 0) << " "
        << b.integer(firstMoved, 1) << " " << b.integer(firstMoved, 2);
    return out.str();
  }
  if (changed > 0) {
    const std::size_t n = a.recordLength - 12;
    out << changed << " of " << a.pointCount << " point records differ after X, Y, Z; record "
        << firstChanged << ": " << hex(a.record(firstChanged) + 12, n) << "became "
        << hex(b.record(firstChanged) + 12, n);
    return out.str();
  }
  return {};
}

} // namespace LasBytes
