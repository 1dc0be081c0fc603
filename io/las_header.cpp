// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAS header codec and its checks.
#include "io/detail/las_header.hpp"

#include "io/detail/las_formats.hpp"

#include "basalt/text.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>

namespace Quorvel::Las::detail {

namespace {

// Reads the values of the table that lie within the first `limit` bytes.
struct Decoder {
  const std::uint8_t* bytes;
  std::size_t limit;
  template <class T>
  void operator()(std::size_t at, T& value) const {
    if (at + sizeof(T) <= limit)
      std::memcpy(&value, bytes + at, sizeof(T));
  }
  void raw(std::size_t at, void* to, std::size_t size) const {
    if (at + size <= limit)
      std::memcpy(to, bytes + at, size);
  }
  void text(std::size_t at, std::size_t size, std::string& value) const {
    if (at + size > limit)
      return;
    const auto* begin = reinterpret_cast<const char*>(bytes + at);
    value.assign(begin, static_cast<std::size_t>(std::find(begin, begin + size, '\0') - begin));
  }
};

// Writes the values of the table that lie within the first `limit` bytes.
struct Encoder {
  std::uint8_t* bytes;
  std::size_t limit;
  template <class T>
  void operator()(std::size_t at, const T& value) const {
    if (at + sizeof(T) <= limit)
      std::memcpy(bytes + at, &value, sizeof(T));
  }
  void raw(std::size_t at, const void* from, std::size_t size) const {
    if (at + size <= limit)
      std::memcpy(bytes + at, from, size);
  }
  void text(std::size_t at, std::size_t size, const std::string& value) const {
    if (at + size > limit)
      return;
    std::memset(bytes + at, 0, size);
    std::memcpy(bytes + at, value.data(), std::min(size, value.size()));
  }
};

// The one table of where each header value sits, for decoding and encoding alike.
template <class Io, class Raw>
void headerTable(const Io& io, Raw& r) {
  auto& h = r.header;
  io.raw(0, r.signature.data(), 4);
  io(4, h.fileSourceId);
  io(6, h.globalEncoding);
  io.raw(8, h.guid.data(), 16);
  io(24, h.versionMajor);
  io(25, h.versionMinor);
  io.text(26, 32, h.systemId);
  io.text(58, 32, h.software);
  io(90, h.day);
  io(92, h.year);
  io(94, h.headerSize);
  io(96, h.pointOffset);
  io(100, h.vlrCount);
  io(104, h.pointFormat);
  io(105, h.recordLength);
  io(107, r.legacyPointCount);
  for (std::size_t k = 0; k < 5; ++k)
    io(111 + 4 * k, r.legacyByReturn[k]);
  for (std::size_t k = 0; k < 3; ++k) {
    io(131 + 8 * k, h.scale[k]);
    io(155 + 8 * k, h.offset[k]);
    io(179 + 16 * k, h.max[k]);
    io(187 + 16 * k, h.min[k]);
  }
  io(227, h.waveformStart); // LAS 1.3
  io(235, h.evlrOffset);    // LAS 1.4 from here
  io(243, h.evlrCount);
  io(247, r.pointCount);
  for (std::size_t k = 0; k < 15; ++k)
    io(255 + 8 * k, r.byReturn[k]);
}

// Whether a reader takes the counts of LAS 1.4 (64-bit, 15 returns) rather than the legacy ones.
bool wideCounts(const RawHeader& r) {
  return r.header.versionMinor >= 4 && (r.pointCount != 0 || r.legacyPointCount == 0);
}

std::string number(double v) {
  return Basalt::format("%.17g", v);
}

} // namespace

std::size_t headerSizeFor(int versionMinor) {
  return versionMinor >= 4 ? 375 : (versionMinor == 3 ? 235 : SmallestHeader);
}

RawHeader decodeHeader(const std::uint8_t* bytes, std::size_t size) {
  RawHeader r;
  r.header = Header{};
  r.header.systemId.clear();
  r.header.software.clear();
  r.header.scale = {0, 0, 0};
  r.header.versionMinor = 0;
  // First the part every version has, then what the version named there adds.
  headerTable(Decoder{bytes, std::min(size, SmallestHeader)}, r);
  headerTable(Decoder{bytes, std::min(size, headerSizeFor(r.header.versionMinor))}, r);
  r.header.pointCount = wideCounts(r) ? r.pointCount : r.legacyPointCount;
  return r;
}

std::vector<std::uint64_t> pointsByReturn(const RawHeader& raw) {
  if (wideCounts(raw))
    return {raw.byReturn.begin(), raw.byReturn.end()};
  return {raw.legacyByReturn.begin(), raw.legacyByReturn.end()};
}

void encodeHeader(const RawHeader& raw, std::uint8_t* out) {
  const std::size_t size = headerSizeFor(raw.header.versionMinor);
  std::memset(out, 0, size);
  headerTable(Encoder{out, size}, raw);
}

namespace {

using Problems = std::vector<std::string>;

// Whether the bytes can be a LAS header at all: its signature, and the smallest header whole.
bool isLasHeader(const RawHeader& raw, std::uint64_t fileSize, Problems& problems) {
  if (std::memcmp(raw.signature.data(), "LASF", 4) != 0 || fileSize < 4) {
    problems.push_back("not a LAS file (no LASF signature)");
    return false;
  }
  if (fileSize < SmallestHeader) {
    problems.push_back("truncated header (" + std::to_string(fileSize) + " of " +
                       std::to_string(SmallestHeader) + " bytes)");
    return false;
  }
  return true;
}

// The version and the header's size; the version's minor number, at most 4.
int checkVersion(const Header& h, std::uint64_t fileSize, Problems& problems) {
  if (h.versionMajor != 1 || h.versionMinor > 4)
    problems.push_back("LAS version " + std::to_string(h.versionMajor) + "." +
                       std::to_string(h.versionMinor) + " is not supported");
  const int minor = std::min<int>(h.versionMinor, 4);
  const std::size_t needed = headerSizeFor(minor);
  if (fileSize < needed)
    problems.push_back("truncated header (" + std::to_string(fileSize) + " of " +
                       std::to_string(needed) + " bytes)");
  if (h.headerSize < needed)
    problems.push_back("header size " + std::to_string(h.headerSize) + " is smaller than LAS 1." +
                       std::to_string(minor) + " needs (" + std::to_string(needed) + ")");
  else if (h.headerSize > fileSize)
    problems.push_back("header size " + std::to_string(h.headerSize) +
                       " is larger than the file (" + std::to_string(fileSize) + " bytes)");
  return minor;
}

// The point format and its record length; whether the format is known.
bool checkFormat(const Header& h, int minor, Findings& findings) {
  auto& problems = findings.problems;
  if (h.pointFormat & 0xC0)
    problems.push_back("point format byte " + std::to_string(h.pointFormat) +
                       " (both compression bits: an old compression) is not supported");
  else if (h.pointFormat >= FormatCount)
    problems.push_back("point format " + std::to_string(h.pointFormat) + " is not supported");
  else {
    const Format& f = format(h.pointFormat);
    if (h.recordLength < f.length)
      problems.push_back("point record length " + std::to_string(h.recordLength) +
                         " is shorter than point format " + std::to_string(h.pointFormat) +
                         " needs (" + std::to_string(f.length) + ")");
    // Formats 6 to 10 count their points in fields that only LAS 1.4 headers have: labelled
    // older, the file cannot say how many points it holds. Older formats in too old a version
    // are a harmless labelling slip of some writers: their records read the same.
    if (f.versionMinor > minor) {
      const std::string text = "point format " + std::to_string(h.pointFormat) + " needs LAS 1." +
                               std::to_string(f.versionMinor) + ", the header says 1." +
                               std::to_string(minor);
      (f.extended ? problems : findings.warnings).push_back(text);
    }
  }
  return h.pointFormat < FormatCount;
}

void checkScales(const Header& h, Problems& problems) {
  // A scale outside these bounds makes no coordinate a real survey could have: 1e-12 is far
  // below any instrument's resolution, and beyond 1e6 an integer step spans a thousand km.
  static const char* axes[] = {"x", "y", "z"};
  for (std::size_t k = 0; k < 3; ++k) {
    const double s = std::fabs(h.scale[k]);
    if (!(s >= 1e-12 && s <= 1e6))
      problems.push_back("scale of " + std::string(axes[k]) + " " + number(h.scale[k]) +
                         " is not usable (magnitude from 1e-12 to 1e6)");
    if (!(std::fabs(h.offset[k]) <= 1e12))
      problems.push_back("offset of " + std::string(axes[k]) + " " + number(h.offset[k]) +
                         " is not usable (magnitude up to 1e12)");
  }
}

// Where the VLRs and the points lie; whether the points are known to end inside the file.
bool checkPlaces(const Header& h, std::uint64_t fileSize, bool formatKnown, bool compressed,
                 Problems& problems) {
  const std::uint64_t pointOffset = h.pointOffset;
  bool pointsPlaced = false;
  if (pointOffset < h.headerSize)
    problems.push_back("offset to point data " + std::to_string(pointOffset) +
                       " lies inside the header (" + std::to_string(h.headerSize) + " bytes)");
  else if (pointOffset > fileSize)
    problems.push_back("offset to point data " + std::to_string(pointOffset) +
                       " lies beyond the end of the file (" + std::to_string(fileSize) + " bytes)");
  else {
    if (h.vlrCount > (pointOffset - h.headerSize) / VlrHeaderSize)
      problems.push_back(std::to_string(h.vlrCount) + " VLRs do not fit in the " +
                         std::to_string(pointOffset - h.headerSize) +
                         " bytes between the header and the point data");
    if (formatKnown && h.recordLength > 0 && compressed)
      pointsPlaced = false;
    else if (formatKnown && h.recordLength > 0) {
      const std::uint64_t room = (fileSize - pointOffset) / h.recordLength;
      if (h.pointCount > room)
        problems.push_back("point count " + std::to_string(h.pointCount) +
                           " is larger than the file holds (" + std::to_string(room) + ")");
      else
        pointsPlaced = true;
    }
  }
  return pointsPlaced;
}

// The point counts' agreement and the EVLRs' place.
void checkCounts(const RawHeader& raw, std::uint64_t fileSize, int minor, bool pointsPlaced,
                 Findings& findings) {
  const Header& h = raw.header;
  auto& problems = findings.problems;
  const std::uint64_t pointOffset = h.pointOffset;
  if (minor >= 4 && raw.legacyPointCount != 0 && raw.pointCount != 0 &&
      raw.legacyPointCount != raw.pointCount)
    findings.warnings.push_back("legacy point count " + std::to_string(raw.legacyPointCount) +
                                " differs from the point count " + std::to_string(raw.pointCount) +
                                ", which is used");

  if (minor >= 4 && h.evlrCount > 0) {
    if (h.evlrOffset > fileSize || h.evlrCount > (fileSize - h.evlrOffset) / EvlrHeaderSize)
      problems.push_back(std::to_string(h.evlrCount) + " EVLRs from byte " +
                         std::to_string(h.evlrOffset) + " do not fit in the file (" +
                         std::to_string(fileSize) + " bytes)");
    else if (pointsPlaced &&
             h.evlrOffset < pointOffset + h.pointCount * std::uint64_t(h.recordLength))
      problems.push_back("start of the EVLRs " + std::to_string(h.evlrOffset) +
                         " lies inside the header, VLRs or points (which end at byte " +
                         std::to_string(pointOffset + h.pointCount * h.recordLength) + ")");
  }
}

} // namespace

void validate(const RawHeader& raw, std::uint64_t fileSize, Findings& findings, bool compressed) {
  Problems& problems = findings.problems;
  const Header& h = raw.header;
  if (!isLasHeader(raw, fileSize, problems))
    return;
  const int minor = checkVersion(h, fileSize, problems);
  const bool formatKnown = checkFormat(h, minor, findings);
  checkScales(h, problems);
  const bool pointsPlaced = checkPlaces(h, fileSize, formatKnown, compressed, problems);
  checkCounts(raw, fileSize, minor, pointsPlaced, findings);
}

std::vector<Vlr> parseRecords(const std::uint8_t* file, std::uint64_t start, std::uint64_t end,
                              std::uint64_t count, bool extended, Findings& findings) {
  const char* kind = extended ? "EVLR " : "VLR ";
  const std::uint64_t headerBytes = extended ? EvlrHeaderSize : VlrHeaderSize;
  std::vector<Vlr> records;
  std::uint64_t at = start;
  for (std::uint64_t k = 0; k < count; ++k) {
    // Both tests subtract from end, so no sum can wrap around.
    if (at > end || end - at < headerBytes) {
      findings.problems.push_back("truncated " + std::string(kind) + std::to_string(k));
      break;
    }
    const std::uint8_t* p = file + at;
    Vlr v;
    std::memcpy(&v.reserved, p, 2);
    Decoder{p, headerBytes}.text(2, 16, v.userId);
    std::memcpy(&v.recordId, p + 18, 2);
    std::uint64_t length = 0;
    if (extended)
      std::memcpy(&length, p + 20, 8);
    else {
      std::uint16_t short16 = 0;
      std::memcpy(&short16, p + 20, 2);
      length = short16;
    }
    Decoder{p, headerBytes}.text(extended ? 28 : 22, 32, v.description);
    at += headerBytes;
    if (length > end - at) {
      findings.problems.push_back(
          std::string(kind) + std::to_string(k) + " (\"" + v.userId + "\" " +
          std::to_string(v.recordId) + ") of " + std::to_string(length) + " bytes runs past " +
          (extended ? "the end of the file" : "the start of the point data") + " at byte " +
          std::to_string(end));
      break;
    }
    v.data.assign(file + at, file + at + length);
    at += length;
    records.push_back(std::move(v));
  }
  return records;
}

void encodeRecord(const Vlr& record, bool extended, std::vector<std::uint8_t>& out) {
  std::uint8_t head[EvlrHeaderSize] = {};
  const std::size_t size = extended ? EvlrHeaderSize : VlrHeaderSize;
  const Encoder io{head, size};
  io(0, record.reserved);
  io.text(2, 16, record.userId);
  io(18, record.recordId);
  if (extended)
    io(20, static_cast<std::uint64_t>(record.data.size()));
  else
    io(20, static_cast<std::uint16_t>(record.data.size()));
  io.text(extended ? 28 : 22, 32, record.description);
  out.insert(out.end(), head, head + size);
  out.insert(out.end(), record.data.begin(), record.data.end());
}

bool isExtraBytesRecord(const Vlr& record) {
  return record.userId == "LASF_Spec" && record.recordId == 4;
}

namespace {

// base, or base with "_extra", "_extra2", ... when a field already has that name; the name
// found is taken.
std::string unique(const std::string& base, std::set<std::string>& taken) {
  std::string name = base;
  for (int n = 1; !taken.insert(name).second; ++n)
    name = base + "_extra" + (n > 1 ? std::to_string(n) : "");
  return name;
}

// The options bits that say a descriptor's scale and offset are given.
constexpr std::uint8_t ScaleGiven = 1 << 3, OffsetGiven = 1 << 4;

// Warns of a descriptor's scale or offset that no reader can apply (0, NaN, infinite): this
// reader keeps the stored numbers, but readers that apply them would turn every value into 0
// or NaN.
void checkScaling(const ExtraBytes& e, const std::string& label, Findings& findings) {
  if (e.dataType < 1 || e.dataType > 10)
    return;
  const Decoder io{e.descriptor.data(), DescriptorSize};
  double scale = 1.0, offset = 0.0;
  io(112, scale);
  io(136, offset);
  const std::string stored = ", which no reader can apply: its stored values are read unscaled";
  if ((e.descriptor[3] & ScaleGiven) && !(std::isfinite(scale) && scale != 0))
    findings.warnings.push_back(label + " has scale " + number(scale) + stored);
  if ((e.descriptor[3] & OffsetGiven) && !std::isfinite(offset))
    findings.warnings.push_back(label + " has offset " + number(offset) + stored);
}

} // namespace

std::vector<ExtraBytes> parseExtraBytes(const FileInfo& info, Findings& findings) {
  // Some writers split the descriptors over several records; they follow one another.
  std::vector<std::uint8_t> descriptors;
  for (const auto* list : {&info.vlrs, &info.evlrs})
    for (const Vlr& v : *list)
      if (isExtraBytesRecord(v)) {
        if (v.data.size() % DescriptorSize != 0) {
          findings.problems.push_back("extra-bytes record holds " + std::to_string(v.data.size()) +
                                      " bytes, not a whole number of " +
                                      std::to_string(DescriptorSize) + "-byte descriptors");
          return {};
        }
        descriptors.insert(descriptors.end(), v.data.begin(), v.data.end());
      }
  const std::size_t length = descriptors.size();
  const int format = info.header.pointFormat;
  std::set<std::string> taken = recordNames();
  std::vector<ExtraBytes> extras;
  std::size_t total = 0;
  for (std::size_t at = 0; at < length; at += DescriptorSize) {
    ExtraBytes e;
    std::memcpy(e.descriptor.data(), descriptors.data() + at, DescriptorSize);
    e.dataType = e.descriptor[2];
    Decoder{e.descriptor.data(), DescriptorSize}.text(4, 32, e.name);
    const std::string label = "extra-bytes dimension \"" + e.name + "\"";
    if (e.dataType == 0) {
      e.size = e.descriptor[3]; // undescribed bytes: their count is in the options byte
      if (e.size == 0) {
        findings.warnings.push_back(label + " has length 0 (type 0 with no bytes): left out");
        continue;
      }
    } else if (e.dataType <= 10) {
      e.size = kindSize(extraKind(e.dataType));
    } else if (e.dataType <= 30) {
      // Two- and three-element types of LAS 1.4 R13, since withdrawn: kept as bytes only.
      const int base = (e.dataType - 1) % 10 + 1;
      e.size = kindSize(extraKind(base)) * ((e.dataType - 1) / 10 + 1);
      findings.warnings.push_back(label + " of withdrawn type " + std::to_string(e.dataType) +
                                  " is read as plain bytes");
      e.dataType = 0;
    } else {
      findings.problems.push_back(label + " has unknown type " + std::to_string(e.dataType));
      return {};
    }
    checkScaling(e, label, findings);
    total += static_cast<std::size_t>(e.size);
    if (e.name.empty())
      e.name = "ExtraBytes" + std::to_string(at / DescriptorSize);
    // A dimension named like a value of the record (or like another one) gets a suffix, so
    // that no two fields share a name; its descriptor keeps the file's name.
    e.name = unique(e.name, taken);
    extras.push_back(std::move(e));
  }
  if (format >= FormatCount)
    return extras;
  const std::size_t used = total + static_cast<std::size_t>(detail::format(format).length);
  // Bytes after the last descriptor (some writers pad records) are kept as plain bytes too.
  for (std::size_t rest = info.header.recordLength > used ? info.header.recordLength - used : 0;
       rest > 0;) {
    ExtraBytes e;
    e.size = static_cast<int>(std::min<std::size_t>(rest, 255));
    e.described = false;
    e.descriptor[3] = static_cast<std::uint8_t>(e.size);
    e.name = unique("UndescribedBytes", taken);
    std::memcpy(e.descriptor.data() + 4, e.name.data(), std::min<std::size_t>(32, e.name.size()));
    rest -= static_cast<std::size_t>(e.size);
    extras.push_back(std::move(e));
  }
  if (used > info.header.recordLength)
    findings.problems.push_back("extra-bytes descriptors overrun the point record (" +
                                std::to_string(total) + " bytes after the " +
                                std::to_string(detail::format(format).length) +
                                " of point format " + std::to_string(format) + ", record length " +
                                std::to_string(info.header.recordLength) + ")");
  return extras;
}

std::vector<int> extraStarts(int pointFormat, const std::vector<ExtraBytes>& extras) {
  std::vector<int> starts;
  for (int at = format(pointFormat).length; const ExtraBytes& e : extras) {
    starts.push_back(at);
    at += e.size;
  }
  return starts;
}

std::vector<ExtraField> extraFields(const ExtraBytes& extra) {
  if (extra.dataType != 0)
    return {{extra.name, extraKind(extra.dataType), 0}};
  constexpr Kind Words[] = {Kind::UInt8, Kind::UInt16, Kind::UInt8, Kind::UInt32,
                            Kind::UInt8, Kind::UInt8,  Kind::UInt8, Kind::UInt64};
  if (extra.size == 1 || extra.size == 2 || extra.size == 4 || extra.size == 8)
    return {{extra.name, Words[extra.size - 1], 0}};
  // Other sizes as few whole numbers as fit, 8 bytes first, named by their byte offset: a
  // record of 255 plain bytes makes 34 fields, not 255.
  std::vector<ExtraField> words;
  for (int at = 0; at < extra.size;) {
    const int left = extra.size - at;
    const int size = left >= 8 ? 8 : left >= 4 ? 4 : left >= 2 ? 2 : 1;
    words.push_back({extra.name + "_" + std::to_string(at), Words[size - 1], at});
    at += size;
  }
  return words;
}

std::array<std::string, 3> componentNames(const std::string& field) {
  const std::string suffix = "Vector";
  const bool named = field.size() > suffix.size() && field.ends_with(suffix);
  const std::string stem = named ? field.substr(0, field.size() - suffix.size()) : field;
  return {stem + "X", stem + "Y", stem + "Z"};
}

int VectorDims::component(std::size_t i) const {
  const auto found = std::find(at.begin(), at.end(), i);
  return found == at.end() ? -1 : static_cast<int>(found - at.begin());
}

std::optional<VectorDims> normalsOf(const std::vector<ExtraBytes>& extras) {
  const auto names = componentNames(NormalField);
  VectorDims dims;
  dims.at.fill(extras.size());
  for (std::size_t i = 0; i < extras.size(); ++i) {
    const ExtraBytes& e = extras[i];
    if (e.name == NormalField)
      return std::nullopt;
    const auto c = std::find(names.begin(), names.end(), e.name) - names.begin();
    if (c < 3 && (e.dataType == 9 || e.dataType == 10))
      dims.at[static_cast<std::size_t>(c)] = i;
  }
  if (std::count(dims.at.begin(), dims.at.end(), extras.size()) > 0)
    return std::nullopt;
  return dims;
}

std::string describe(const std::string& path, const std::vector<std::string>& problems) {
  std::string all = path + ":";
  for (std::size_t i = 0; i < problems.size(); ++i)
    all += (i ? "; " : " ") + problems[i];
  return all;
}

} // namespace Quorvel::Las::detail
