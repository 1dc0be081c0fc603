// Quorvel: reading and writing LAS files.
#include "io/las.hpp"

#include "basalt/Text.hpp"
#include "tressel/PointCloud.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <unistd.h>

namespace Quorvel::Las {

using Tressel::Field;
using Vantor::PhysicalSpace::point;

namespace {

// ---- Little-endian access ---------------------------------------------------------------

template <class T>
T get(const std::uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof(T));
  return value;
}

template <class T>
void put(std::uint8_t* at, T value) {
  std::memcpy(at, &value, sizeof(T));
}

std::string text(const std::uint8_t* at, std::size_t size) {
  std::string s(reinterpret_cast<const char*>(at), size);
  return s.substr(0, s.find('\0'));
}

void putText(std::uint8_t* at, std::size_t size, const std::string& s) {
  std::memset(at, 0, size);
  std::memcpy(at, s.data(), std::min(size, s.size()));
}

// ---- Point record layouts ---------------------------------------------------------------

enum class Kind { U8, I8, U16, I16, U32, I32, U64, I64, F32, F64 };

int kindSize(Kind k) {
  switch (k) {
  case Kind::U8:
  case Kind::I8:
    return 1;
  case Kind::U16:
  case Kind::I16:
    return 2;
  case Kind::U32:
  case Kind::I32:
  case Kind::F32:
    return 4;
  default:
    return 8;
  }
}

// A value of the point record: a whole number at an offset, or bits of a byte (bits > 0).
struct Dim {
  const char* name;
  int offset;
  Kind kind;
  int shift = 0;
  int bits = 0;
};

constexpr int BaseLength[11] = {20, 28, 26, 34, 57, 63, 30, 36, 38, 59, 67};

bool hasGps(int f) {
  return f != 0 && f != 2;
}
int rgbOffset(int f) {
  switch (f) {
  case 2:
    return 20;
  case 3:
  case 5:
    return 28;
  case 7:
  case 8:
  case 10:
    return 30;
  default:
    return -1;
  }
}
int nirOffset(int f) {
  return f == 8 || f == 10 ? 36 : -1;
}
int waveOffset(int f) {
  switch (f) {
  case 4:
    return 28;
  case 5:
    return 34;
  case 9:
    return 30;
  case 10:
    return 38;
  default:
    return -1;
  }
}

// The plain values of a format (positions, scan angle, colour and derived fields aside).
std::vector<Dim> dims(int f) {
  std::vector<Dim> d;
  d.push_back({"Intensity", 12, Kind::U16});
  if (f <= 5) {
    d.push_back({"ReturnNumber", 14, Kind::U8, 0, 3});
    d.push_back({"NumberOfReturns", 14, Kind::U8, 3, 3});
    d.push_back({"ScanDirectionFlag", 14, Kind::U8, 6, 1});
    d.push_back({"EdgeOfFlightLine", 14, Kind::U8, 7, 1});
    d.push_back({"Classification", 15, Kind::U8, 0, 5});
    d.push_back({"Synthetic", 15, Kind::U8, 5, 1});
    d.push_back({"KeyPoint", 15, Kind::U8, 6, 1});
    d.push_back({"Withheld", 15, Kind::U8, 7, 1});
    d.push_back({"UserData", 17, Kind::U8});
    d.push_back({"PointSourceId", 18, Kind::U16});
    if (hasGps(f))
      d.push_back({"GpsTime", 20, Kind::F64});
  } else {
    d.push_back({"ReturnNumber", 14, Kind::U8, 0, 4});
    d.push_back({"NumberOfReturns", 14, Kind::U8, 4, 4});
    d.push_back({"Synthetic", 15, Kind::U8, 0, 1});
    d.push_back({"KeyPoint", 15, Kind::U8, 1, 1});
    d.push_back({"Withheld", 15, Kind::U8, 2, 1});
    d.push_back({"Overlap", 15, Kind::U8, 3, 1});
    d.push_back({"ScannerChannel", 15, Kind::U8, 4, 2});
    d.push_back({"ScanDirectionFlag", 15, Kind::U8, 6, 1});
    d.push_back({"EdgeOfFlightLine", 15, Kind::U8, 7, 1});
    d.push_back({"Classification", 16, Kind::U8});
    d.push_back({"UserData", 17, Kind::U8});
    d.push_back({"PointSourceId", 20, Kind::U16});
    d.push_back({"GpsTime", 22, Kind::F64});
  }
  if (nirOffset(f) >= 0)
    d.push_back({"NIR", nirOffset(f), Kind::U16});
  if (const int w = waveOffset(f); w >= 0) {
    d.push_back({"WavePacketIndex", w, Kind::U8});
    d.push_back({"WaveformOffset", w + 1, Kind::U64});
    d.push_back({"WaveformSize", w + 9, Kind::U32});
    d.push_back({"ReturnPointLocation", w + 13, Kind::F32});
    d.push_back({"WaveXt", w + 17, Kind::F32});
    d.push_back({"WaveYt", w + 21, Kind::F32});
    d.push_back({"WaveZt", w + 25, Kind::F32});
  }
  return d;
}

// Names the reader makes besides the plain values; the writer never turns them into extra bytes.
const std::set<std::string>& reservedNames() {
  static const std::set<std::string> names = [] {
    std::set<std::string> s = {"Positions", "PointIndex", "LastReturn", "ScanAngle", "RGB"};
    for (int f = 0; f <= 10; ++f)
      for (const Dim& d : dims(f))
        s.insert(d.name);
    return s;
  }();
  return names;
}

// Extra-bytes data types 1 to 10 as dimension kinds.
Kind extraKind(int type) {
  static const Kind kinds[] = {Kind::U8,  Kind::I8,  Kind::U16, Kind::I16, Kind::U32,
                               Kind::I32, Kind::U64, Kind::I64, Kind::F32, Kind::F64};
  return kinds[type - 1];
}

// A column of per-point values of one kind, filled while decoding and handed to the grid.
struct Column {
  std::string name;
  Kind kind;
  std::vector<std::uint8_t> bytes; // n values of kindSize(kind)
};

template <class T>
std::vector<T> typed(const Column& c, std::size_t n) {
  std::vector<T> out(n);
  std::memcpy(out.data(), c.bytes.data(), n * sizeof(T));
  return out;
}

void addColumn(Tressel::PointCloudBuilder& builder, const Column& c, std::size_t n) {
  switch (c.kind) {
  case Kind::U8:
    builder.addField(c.name, typed<unsigned char>(c, n));
    break;
  case Kind::I8:
    builder.addField(c.name, typed<signed char>(c, n));
    break;
  case Kind::U16:
    builder.addField(c.name, typed<unsigned short>(c, n));
    break;
  case Kind::I16:
    builder.addField(c.name, typed<short>(c, n));
    break;
  case Kind::U32:
    builder.addField(c.name, typed<unsigned int>(c, n));
    break;
  case Kind::I32:
    builder.addField(c.name, typed<int>(c, n));
    break;
  case Kind::U64:
    builder.addField(c.name, typed<unsigned long long>(c, n));
    break;
  case Kind::I64:
    builder.addField(c.name, typed<long long>(c, n));
    break;
  case Kind::F32:
    builder.addField(c.name, typed<float>(c, n));
    break;
  case Kind::F64:
    builder.addField(c.name, typed<double>(c, n));
    break;
  }
}

std::vector<std::uint8_t> readFile(const std::string& path) {
  std::error_code code;
  if (!std::filesystem::is_regular_file(path, code))
    throw Error(path + ": no such file");
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw Error(path + ": cannot open");
  const auto size = std::filesystem::file_size(path, code);
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
  if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size)))
    throw Error(path + ": cannot read");
  return bytes;
}

// Reads the header and checks everything that later reads rely on; lists every problem.
Header parseHeader(const std::vector<std::uint8_t>& b, const std::string& path) {
  if (b.size() < 4 || std::memcmp(b.data(), "LASF", 4) != 0)
    throw Error(path + ": not a LAS file (no LASF signature)");
  if (b.size() < 227)
    throw Error(path + ": truncated header (" + std::to_string(b.size()) + " of 227 bytes)");
  Header h;
  const std::uint8_t* p = b.data();
  h.fileSourceId = get<std::uint16_t>(p + 4);
  h.globalEncoding = get<std::uint16_t>(p + 6);
  std::memcpy(h.guid.data(), p + 8, 16);
  h.versionMajor = p[24];
  h.versionMinor = p[25];
  h.systemId = text(p + 26, 32);
  h.software = text(p + 58, 32);
  h.day = get<std::uint16_t>(p + 90);
  h.year = get<std::uint16_t>(p + 92);
  h.headerSize = get<std::uint16_t>(p + 94);
  h.pointOffset = get<std::uint32_t>(p + 96);
  h.vlrCount = get<std::uint32_t>(p + 100);
  h.pointFormat = p[104];
  h.recordLength = get<std::uint16_t>(p + 105);
  h.pointCount = get<std::uint32_t>(p + 107);
  for (int k = 0; k < 3; ++k) {
    h.scale[k] = get<double>(p + 131 + 8 * k);
    h.offset[k] = get<double>(p + 155 + 8 * k);
    h.max[k] = get<double>(p + 179 + 16 * k);
    h.min[k] = get<double>(p + 187 + 16 * k);
  }
  std::vector<std::string> problems;
  if (h.versionMajor != 1 || h.versionMinor > 4)
    problems.push_back("LAS version " + std::to_string(h.versionMajor) + "." +
                       std::to_string(h.versionMinor) + " is not supported");
  const std::size_t needed = h.versionMinor >= 4 ? 375 : (h.versionMinor == 3 ? 235 : 227);
  if (h.headerSize < needed || b.size() < needed)
    problems.push_back("truncated header (" +
                       std::to_string(std::min<std::size_t>(h.headerSize, b.size())) + " of " +
                       std::to_string(needed) + " bytes)");
  else {
    if (h.versionMinor >= 3)
      h.waveformStart = get<std::uint64_t>(p + 227);
    if (h.versionMinor >= 4) {
      h.evlrOffset = get<std::uint64_t>(p + 235);
      h.evlrCount = get<std::uint32_t>(p + 243);
      const auto count64 = get<std::uint64_t>(p + 247);
      if (h.pointCount == 0 || count64 != 0)
        h.pointCount = count64;
    }
  }
  if (h.pointFormat & 0xC0)
    problems.push_back("compressed (LAZ) point data is not supported");
  else if (h.pointFormat > 10)
    problems.push_back("point format " + std::to_string(h.pointFormat) + " is not supported");
  else if (h.recordLength < BaseLength[h.pointFormat])
    problems.push_back("point record length " + std::to_string(h.recordLength) +
                       " is shorter than point format " + std::to_string(h.pointFormat) +
                       " needs (" + std::to_string(BaseLength[h.pointFormat]) + ")");
  for (int k = 0; k < 3; ++k)
    if (!(h.scale[k] != 0.0) || !std::isfinite(h.scale[k]) || !std::isfinite(h.offset[k]))
      problems.push_back("invalid scale or offset");
  if (h.pointOffset < h.headerSize || h.pointOffset > b.size())
    problems.push_back("offset to point data " + std::to_string(h.pointOffset) +
                       " lies outside the file");
  else if (problems.empty() &&
           h.pointCount > (b.size() - h.pointOffset) / std::max<std::size_t>(h.recordLength, 1))
    problems.push_back("point count " + std::to_string(h.pointCount) +
                       " is larger than the file holds (" +
                       std::to_string((b.size() - h.pointOffset) / h.recordLength) + ")");
  if (!problems.empty()) {
    std::string all = path + ":";
    for (std::size_t i = 0; i < problems.size(); ++i)
      all += (i ? "; " : " ") + problems[i];
    throw Error(all);
  }
  return h;
}

std::vector<Vlr> parseRecords(const std::vector<std::uint8_t>& b, std::uint64_t start,
                              std::uint64_t end, std::uint32_t count, bool extended,
                              const std::string& path) {
  std::vector<Vlr> records;
  const std::uint64_t headerBytes = extended ? 60 : 54;
  std::uint64_t at = start;
  for (std::uint32_t k = 0; k < count; ++k) {
    const char* what = extended ? "EVLR " : "VLR ";
    if (at + headerBytes > end)
      throw Error(path + ": truncated " + what + std::to_string(k));
    const std::uint8_t* p = b.data() + at;
    Vlr v;
    v.reserved = get<std::uint16_t>(p);
    v.userId = text(p + 2, 16);
    v.recordId = get<std::uint16_t>(p + 18);
    const std::uint64_t length = extended ? get<std::uint64_t>(p + 20) : get<std::uint16_t>(p + 20);
    v.description = text(p + (extended ? 28 : 22), 32);
    if (length > end - at - headerBytes)
      throw Error(path + ": truncated " + what + std::to_string(k));
    v.data.assign(p + headerBytes, p + headerBytes + length);
    at += headerBytes + length;
    records.push_back(std::move(v));
  }
  return records;
}

std::vector<ExtraBytes> parseExtraBytes(const std::vector<Vlr>& vlrs, int room,
                                        const std::string& path) {
  std::vector<ExtraBytes> out;
  int used = 0;
  for (const Vlr& v : vlrs) {
    if (v.userId != "LASF_Spec" || v.recordId != 4)
      continue;
    for (std::size_t at = 0; at + 192 <= v.data.size(); at += 192) {
      ExtraBytes e;
      std::memcpy(e.descriptor.data(), v.data.data() + at, 192);
      e.dataType = e.descriptor[2];
      e.name = text(e.descriptor.data() + 4, 32);
      if (e.dataType < 1 || e.dataType > 10)
        throw Error(path + ": extra-bytes dimension \"" + e.name + "\" has data type " +
                    std::to_string(e.dataType) + ", which is not supported");
      e.size = kindSize(extraKind(e.dataType));
      used += e.size;
      out.push_back(e);
    }
  }
  if (used > room)
    throw Error(path + ": extra-bytes descriptors overrun the point record");
  return out;
}

} // namespace

ReadResult read(const std::string& path, std::size_t fragmentPoints) {
  const std::vector<std::uint8_t> b = readFile(path);
  ReadResult result;
  FileInfo& info = result.info;
  info.header = parseHeader(b, path);
  const Header& h = info.header;
  info.vlrs = parseRecords(b, h.headerSize, h.pointOffset, h.vlrCount, false, path);
  if (h.evlrCount > 0)
    info.evlrs = parseRecords(b, h.evlrOffset, b.size(), h.evlrCount, true, path);
  const int format = h.pointFormat;
  info.extraBytes = parseExtraBytes(info.vlrs, h.recordLength - BaseLength[format], path);

  const std::size_t n = static_cast<std::size_t>(h.pointCount);
  const std::uint8_t* records = b.data() + h.pointOffset;
  std::vector<point> xyz(n);
  std::vector<float> scanAngle(n);
  std::vector<unsigned char> lastReturn(n);
  std::vector<unsigned long long> order(n);
  const int rgb = rgbOffset(format);
  std::vector<Vantor::RGB16> colours(rgb >= 0 ? n : 0);

  std::vector<Column> columns;
  std::vector<Dim> layout = dims(format);
  for (const Dim& d : layout)
    columns.push_back({d.name, d.kind,
                       std::vector<std::uint8_t>(n * static_cast<std::size_t>(kindSize(d.kind)))});
  int extraAt = BaseLength[format];
  std::set<std::string> taken = reservedNames();
  for (ExtraBytes& e : info.extraBytes) {
    // A dimension named like a field of the record (or like another one) gets a suffix, so
    // that no two fields share a name; its descriptor keeps the file's name.
    while (!taken.insert(e.name).second)
      e.name += "_extra";
    layout.push_back({nullptr, extraAt, extraKind(e.dataType)});
    columns.push_back({e.name, extraKind(e.dataType),
                       std::vector<std::uint8_t>(n * static_cast<std::size_t>(e.size))});
    extraAt += e.size;
  }
  const std::size_t returnNumber = 1, numberOfReturns = 2; // their places in dims()

  for (std::size_t i = 0; i < n; ++i) {
    const std::uint8_t* r = records + i * h.recordLength;
    xyz[i] = point(get<std::int32_t>(r) * h.scale[0] + h.offset[0],
                   get<std::int32_t>(r + 4) * h.scale[1] + h.offset[1],
                   get<std::int32_t>(r + 8) * h.scale[2] + h.offset[2]);
    scanAngle[i] = format <= 5 ? static_cast<float>(get<std::int8_t>(r + 16))
                               : static_cast<float>(get<std::int16_t>(r + 18) * 0.006);
    if (rgb >= 0)
      colours[i] = {get<std::uint16_t>(r + rgb), get<std::uint16_t>(r + rgb + 2),
                    get<std::uint16_t>(r + rgb + 4)};
    order[i] = i;
    for (std::size_t c = 0; c < layout.size(); ++c) {
      const Dim& d = layout[c];
      const int size = kindSize(d.kind);
      std::uint8_t* to = columns[c].bytes.data() + i * static_cast<std::size_t>(size);
      if (d.bits > 0)
        *to = static_cast<std::uint8_t>((r[d.offset] >> d.shift) & ((1 << d.bits) - 1));
      else
        std::memcpy(to, r + d.offset, static_cast<std::size_t>(size));
    }
    lastReturn[i] = columns[returnNumber].bytes[i] == columns[numberOfReturns].bytes[i] ? 1 : 0;
  }

  Tressel::PointCloudBuilder builder(xyz);
  for (const Column& c : columns)
    addColumn(builder, c, n);
  builder.addField("ScanAngle", std::move(scanAngle));
  builder.addField("LastReturn", std::move(lastReturn));
  builder.addField("PointIndex", std::move(order));
  if (rgb >= 0)
    builder.addField("RGB", std::move(colours));
  result.grid = builder.build(Tressel::tilePartitionByCount(xyz, fragmentPoints),
                              std::filesystem::path(path).stem().string());
  return result;
}

namespace {

// A field's values in file order, as one array of T; empty when the grid has no such field.
template <class T>
std::vector<T> valuesOf(const Tressel::Grid& grid, const std::string& name,
                        const std::vector<std::size_t>& place) {
  auto field = grid(Tressel::StandardCartesianChart3D, name);
  if (!field)
    return {};
  const std::vector<T> flat = Tressel::readField<T>(*field);
  std::vector<T> out(flat.size());
  for (std::size_t k = 0; k < flat.size(); ++k)
    out[place[k]] = flat[k];
  return out;
}

// The bytes of a scalar field in file order, as the given kind; empty when the grid lacks it
// or it holds another element type.
std::vector<std::uint8_t> columnOf(const Tressel::Grid& grid, const std::string& name, Kind kind,
                                   const std::vector<std::size_t>& place, std::size_t n) {
  auto field = grid(Tressel::StandardCartesianChart3D, name);
  if (!field || !field->getElementType())
    return {};
  const std::string type = field->getElementType()->name();
  static const std::map<Kind, std::string> names = {
      {Kind::U8, "uint8"},    {Kind::I8, "int8"},    {Kind::U16, "uint16"}, {Kind::I16, "int16"},
      {Kind::U32, "uint32"},  {Kind::I32, "int32"},  {Kind::U64, "uint64"}, {Kind::I64, "int64"},
      {Kind::F32, "float32"}, {Kind::F64, "float64"}};
  if (names.at(kind) != type)
    throw Error("field \"" + name + "\" holds " + type + ", the LAS record needs " +
                names.at(kind));
  const std::size_t size = static_cast<std::size_t>(kindSize(kind));
  std::vector<std::uint8_t> out(n * size);
  std::size_t k = 0;
  field->iterate([&](const auto&, const auto& creator) {
    const auto data = creator ? creator->peekData() : nullptr;
    if (!data)
      throw Error("field \"" + name + "\" misses a fragment");
    const auto* raw = static_cast<const std::uint8_t*>(data->myChunk()->rawData());
    for (std::size_t j = 0; j < data->nElements(); ++j, ++k)
      std::memcpy(out.data() + place[k] * size, raw + j * size, size);
    return true;
  });
  return out;
}

// An extra-bytes descriptor for a new per-point field.
ExtraBytes describe(const std::string& name, int dataType) {
  ExtraBytes e;
  e.dataType = dataType;
  e.name = name;
  e.size = kindSize(extraKind(dataType));
  e.descriptor[2] = static_cast<std::uint8_t>(dataType);
  putText(e.descriptor.data() + 4, 32, name);
  putText(e.descriptor.data() + 160, 32, "Quorvel result");
  return e;
}

int extraTypeOf(const std::string& typeName) {
  static const std::map<std::string, int> types = {
      {"uint8", 1}, {"int8", 2},   {"uint16", 3}, {"int16", 4},   {"uint32", 5},
      {"int32", 6}, {"uint64", 7}, {"int64", 8},  {"float32", 9}, {"float64", 10}};
  auto it = types.find(typeName);
  return it == types.end() ? 0 : it->second;
}

} // namespace

void write(const std::string& path, const Tressel::Grid& grid, const FileInfo* info) {
  auto positions = grid.CartesianPositions();
  if (!positions)
    throw Error(path + ": the grid has no positions to write");
  const std::vector<point> flat = Tressel::readField<point>(*positions);
  const std::size_t n = flat.size();

  // File order: by "PointIndex" where present, else fragment after fragment.
  std::vector<std::size_t> place(n);
  if (auto index = grid(Tressel::StandardCartesianChart3D, "PointIndex")) {
    const auto order = Tressel::readField<unsigned long long>(*index);
    std::vector<std::pair<unsigned long long, std::size_t>> sorted(n);
    for (std::size_t k = 0; k < n; ++k)
      sorted[k] = {order[k], k};
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t rank = 0; rank < n; ++rank)
      place[sorted[rank].second] = rank;
  } else {
    for (std::size_t k = 0; k < n; ++k)
      place[k] = k;
  }
  std::vector<point> xyz(n);
  for (std::size_t k = 0; k < n; ++k)
    xyz[place[k]] = flat[k];

  Header h = info ? info->header : Header{};
  const auto classes = valuesOf<unsigned char>(grid, "Classification", place);
  const auto rgb = valuesOf<Vantor::RGB16>(grid, "RGB", place);
  const bool nir = grid(Tressel::StandardCartesianChart3D, "NIR") != nullptr;
  if (!info) {
    // A format that holds what the grid has; offset at the floor of the minimum.
    h.pointFormat = nir ? 8 : (!rgb.empty() ? 7 : 6);
    for (int k = 0; k < 3; ++k) {
      double lo = std::numeric_limits<double>::infinity();
      for (const point& p : xyz)
        lo = std::min(lo, p[k]);
      h.offset[k] = std::isfinite(lo) ? std::floor(lo) : 0.0;
    }
  }
  const bool needsFullClass =
      std::any_of(classes.begin(), classes.end(), [](unsigned char c) { return c > 31; });
  if (needsFullClass && h.pointFormat <= 5) {
    static const std::uint8_t promoted[6] = {6, 6, 7, 7, 9, 10};
    h.pointFormat = promoted[h.pointFormat];
  }
  const int format = h.pointFormat;
  if (!rgb.empty() && rgbOffset(format) < 0)
    throw Error(path + ": point format " + std::to_string(format) + " has no place for RGB");

  // Extra bytes: those of the input that the grid still has, then every other scalar field.
  std::vector<ExtraBytes> extras;
  std::set<std::string> used = reservedNames();
  if (info)
    for (const ExtraBytes& e : info->extraBytes)
      if (grid(Tressel::StandardCartesianChart3D, e.name)) {
        extras.push_back(e);
        used.insert(e.name);
      }
  auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D);
  for (const auto& [id, field] : rep->snapshot()) {
    if (used.count(id->Name()) || !field || !field->getElementType())
      continue;
    const int type = extraTypeOf(field->getElementType()->name());
    if (type == 0)
      throw Error(path + ": field \"" + id->Name() + "\" of " + field->getElementType()->name() +
                  " has no LAS representation");
    extras.push_back(describe(id->Name(), type));
    used.insert(id->Name());
  }
  int extraBytes = 0;
  for (const ExtraBytes& e : extras)
    extraBytes += e.size;
  h.recordLength = static_cast<std::uint16_t>(BaseLength[format] + extraBytes);

  // VLRs: the input's, with the extra-bytes record made anew.
  std::vector<Vlr> vlrs;
  if (info)
    for (const Vlr& v : info->vlrs)
      if (!(v.userId == "LASF_Spec" && v.recordId == 4))
        vlrs.push_back(v);
  if (!extras.empty()) {
    Vlr e;
    e.userId = "LASF_Spec";
    e.recordId = 4;
    e.description = "Extra bytes";
    for (const ExtraBytes& x : extras)
      e.data.insert(e.data.end(), x.descriptor.begin(), x.descriptor.end());
    vlrs.push_back(e);
  }

  // Point records.
  std::vector<std::uint8_t> records(n * h.recordLength, 0);
  std::array<double, 3> lo{}, hi{};
  for (int k = 0; k < 3; ++k) {
    lo[k] = std::numeric_limits<double>::infinity();
    hi[k] = -lo[k];
  }
  for (std::size_t i = 0; i < n; ++i) {
    std::uint8_t* r = records.data() + i * h.recordLength;
    for (int k = 0; k < 3; ++k) {
      const double v = std::round((xyz[i][k] - h.offset[k]) / h.scale[k]);
      if (!(v >= std::numeric_limits<std::int32_t>::min() &&
            v <= std::numeric_limits<std::int32_t>::max()))
        throw Error(path + ": coordinate " + Basalt::format("%.17g", xyz[i][k]) + " of point " +
                    std::to_string(i) + " does not fit the LAS integer coordinates");
      put<std::int32_t>(r + 4 * k, static_cast<std::int32_t>(v));
      lo[k] = std::min(lo[k], xyz[i][k]);
      hi[k] = std::max(hi[k], xyz[i][k]);
    }
  }
  const auto angles = valuesOf<float>(grid, "ScanAngle", place);
  for (std::size_t i = 0; i < angles.size(); ++i) {
    std::uint8_t* r = records.data() + i * h.recordLength;
    if (format <= 5)
      put<std::int8_t>(r + 16, static_cast<std::int8_t>(std::lround(angles[i])));
    else
      put<std::int16_t>(r + 18, static_cast<std::int16_t>(std::lround(angles[i] / 0.006)));
  }
  for (std::size_t i = 0; i < rgb.size(); ++i) {
    std::uint8_t* r = records.data() + i * h.recordLength + rgbOffset(format);
    put(r, rgb[i].r);
    put(r + 2, rgb[i].g);
    put(r + 4, rgb[i].b);
  }
  std::vector<Dim> layout = dims(format);
  int extraAt = BaseLength[format];
  for (const ExtraBytes& e : extras) {
    layout.push_back({nullptr, extraAt, extraKind(e.dataType)});
    extraAt += e.size;
  }
  std::vector<std::string> names;
  for (const Dim& d : dims(format))
    names.push_back(d.name);
  for (const ExtraBytes& e : extras)
    names.push_back(e.name);
  std::array<std::uint64_t, 15> byReturn{};
  for (std::size_t c = 0; c < layout.size(); ++c) {
    const Dim& d = layout[c];
    const auto column = columnOf(grid, names[c], d.kind, place, n);
    if (column.empty())
      continue;
    const std::size_t size = static_cast<std::size_t>(kindSize(d.kind));
    for (std::size_t i = 0; i < n; ++i) {
      std::uint8_t* r = records.data() + i * h.recordLength;
      if (d.bits > 0) {
        const std::uint8_t mask = static_cast<std::uint8_t>((1 << d.bits) - 1);
        const std::uint8_t v = column[i];
        if (v > mask)
          throw Error(path + ": " + names[c] + " " + std::to_string(v) + " of point " +
                      std::to_string(i) + " does not fit point format " + std::to_string(format));
        r[d.offset] =
            static_cast<std::uint8_t>((r[d.offset] & ~(mask << d.shift)) | (v << d.shift));
      } else {
        std::memcpy(r + d.offset, column.data() + i * size, size);
      }
      if (std::string(names[c]) == "ReturnNumber" && column[i] >= 1 && column[i] <= 15)
        ++byReturn[column[i] - 1];
    }
  }

  // Header of LAS 1.4.
  std::uint32_t vlrBytes = 0;
  for (const Vlr& v : vlrs)
    vlrBytes += 54 + static_cast<std::uint32_t>(v.data.size());
  h.versionMajor = 1;
  h.versionMinor = 4;
  h.headerSize = 375;
  h.vlrCount = static_cast<std::uint32_t>(vlrs.size());
  h.pointOffset = 375 + vlrBytes;
  h.pointCount = n;
  const std::vector<Vlr> evlrs = info ? info->evlrs : std::vector<Vlr>{};
  h.evlrCount = static_cast<std::uint32_t>(evlrs.size());
  h.evlrOffset = evlrs.empty() ? 0 : h.pointOffset + records.size();
  std::vector<std::uint8_t> head(375, 0);
  std::uint8_t* p = head.data();
  std::memcpy(p, "LASF", 4);
  put(p + 4, h.fileSourceId);
  put(p + 6, h.globalEncoding);
  std::memcpy(p + 8, h.guid.data(), 16);
  p[24] = 1;
  p[25] = 4;
  putText(p + 26, 32, h.systemId);
  putText(p + 58, 32, h.software);
  put(p + 90, h.day);
  put(p + 92, h.year);
  put(p + 94, h.headerSize);
  put(p + 96, h.pointOffset);
  put(p + 100, h.vlrCount);
  p[104] = h.pointFormat;
  put(p + 105, h.recordLength);
  const bool legacy = format <= 5 && n <= std::numeric_limits<std::uint32_t>::max();
  put<std::uint32_t>(p + 107, legacy ? static_cast<std::uint32_t>(n) : 0);
  for (int k = 0; k < 5; ++k)
    put<std::uint32_t>(p + 111 + 4 * k, legacy ? static_cast<std::uint32_t>(byReturn[k]) : 0);
  for (int k = 0; k < 3; ++k) {
    put(p + 131 + 8 * k, h.scale[k]);
    put(p + 155 + 8 * k, h.offset[k]);
    put(p + 179 + 16 * k, n ? hi[k] : 0.0);
    put(p + 187 + 16 * k, n ? lo[k] : 0.0);
  }
  put(p + 227, h.waveformStart);
  put(p + 235, h.evlrOffset);
  put(p + 243, h.evlrCount);
  put<std::uint64_t>(p + 247, n);
  for (int k = 0; k < 15; ++k)
    put(p + 255 + 8 * k, byReturn[static_cast<std::size_t>(k)]);

  // Everything goes to a temporary file that replaces the target only when complete.
  const std::string temporary = path + ".tmp." + std::to_string(::getpid());
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    auto bytes = [&](const void* data, std::size_t size) {
      out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    };
    bytes(head.data(), head.size());
    for (const Vlr& v : vlrs) {
      std::uint8_t vh[54] = {};
      put(vh, v.reserved);
      putText(vh + 2, 16, v.userId);
      put(vh + 18, v.recordId);
      put<std::uint16_t>(vh + 20, static_cast<std::uint16_t>(v.data.size()));
      putText(vh + 22, 32, v.description);
      bytes(vh, 54);
      bytes(v.data.data(), v.data.size());
    }
    bytes(records.data(), records.size());
    for (const Vlr& v : evlrs) {
      std::uint8_t vh[60] = {};
      put(vh, v.reserved);
      putText(vh + 2, 16, v.userId);
      put(vh + 18, v.recordId);
      put<std::uint64_t>(vh + 20, v.data.size());
      putText(vh + 28, 32, v.description);
      bytes(vh, 60);
      bytes(v.data.data(), v.data.size());
    }
    out.close();
    if (!out) {
      std::error_code ignored;
      std::filesystem::remove(temporary, ignored);
      throw Error(path + ": cannot write " + temporary);
    }
  }
  std::error_code code;
  std::filesystem::rename(temporary, path, code);
  if (code) {
    std::filesystem::remove(temporary, code);
    throw Error(path + ": cannot replace the file");
  }
}

} // namespace Quorvel::Las
