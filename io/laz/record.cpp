// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the "laszip encoded" record: one table of where its fields sit, walked by the reader
// and by the writer, a validate that lists what a reader cannot decode, and the items the writer
// chooses for each point format.
#include "io/laz/laz.hpp"

#include "io/laz/common.hpp"

#include <cstring>
#include <stdexcept>

namespace Quorvel::Laz {

namespace {

// The fixed part of the record, before its list of items (6 bytes each).
constexpr std::size_t FixedBytes = 34;

// Reads the fields that lie within the record's bytes.
struct RecordReader {
  const std::vector<std::uint8_t>& bytes;
  std::uint16_t listed = 0; // the item count the record gives

  template <class T>
  void operator()(std::size_t at, T& value) {
    if (at + sizeof(T) <= bytes.size())
      std::memcpy(&value, bytes.data() + at, sizeof(T));
  }
  void items(std::size_t at, std::vector<Item>& items) {
    (*this)(at, listed);
    for (std::size_t k = 0; k < listed && at + 2 + 6 * (k + 1) <= bytes.size(); ++k) {
      const std::uint8_t* p = bytes.data() + at + 2 + 6 * k;
      items.push_back(
          {load<std::uint16_t>(p), load<std::uint16_t>(p + 2), load<std::uint16_t>(p + 4)});
    }
  }
};

// Writes the fields at their places, growing the record as needed.
struct RecordWriter {
  std::vector<std::uint8_t>& bytes;

  template <class T>
  void operator()(std::size_t at, const T& value) {
    if (bytes.size() < at + sizeof(T))
      bytes.resize(at + sizeof(T));
    std::memcpy(bytes.data() + at, &value, sizeof(T));
  }
  void items(std::size_t at, const std::vector<Item>& items) {
    (*this)(at, static_cast<std::uint16_t>(items.size()));
    for (std::size_t k = 0; k < items.size(); ++k) {
      (*this)(at + 2 + 6 * k, items[k].type);
      (*this)(at + 4 + 6 * k, items[k].size);
      (*this)(at + 6 + 6 * k, items[k].version);
    }
  }
};

// The one table of the record's fields, for reading and writing alike.
template <class Io, class D>
void recordTable(Io& io, D& d) {
  io(0, d.compressor);
  io(2, d.coder);
  io(4, d.versionMajor);
  io(5, d.versionMinor);
  io(6, d.revision);
  io(8, d.options);
  io(12, d.chunkSize);
  io(16, d.specialEvlrs);
  io(24, d.evlrOffset);
  io.items(32, d.items);
}

// The items of a point format's records.
std::vector<Item> itemsFor(int format, std::size_t extraBytes) {
  const auto extra = static_cast<std::uint16_t>(extraBytes);
  if (format >= 0 && format <= 5) {
    std::vector<Item> items{{Point10, 20, 2}};
    if (format != 0 && format != 2)
      items.push_back({GpsTime11, 8, 2});
    if (format == 2 || format == 3 || format == 5)
      items.push_back({Rgb12, 6, 2});
    if (format >= 4)
      items.push_back({WavePacket13, 29, 1});
    if (extra)
      items.push_back({Byte, extra, 2});
    return items;
  }
  if (format >= 6 && format <= 10) {
    std::vector<Item> items{{Point14, 30, 3}};
    if (format == 7)
      items.push_back({Rgb14, 6, 3});
    if (format == 8 || format == 10)
      items.push_back({RgbNir14, 8, 3});
    if (format >= 9)
      items.push_back({WavePacket14, 29, 3});
    if (extra)
      items.push_back({Byte14, extra, 3});
    return items;
  }
  throw std::runtime_error("point format " + std::to_string(format) + " has no LAZ items");
}

} // namespace

std::vector<std::string> validate(const Description& d, std::size_t recordBytes,
                                  std::size_t listedItems) {
  std::vector<std::string> problems;
  if (recordBytes < FixedBytes) {
    problems.push_back("the \"laszip encoded\" record is " + std::to_string(recordBytes) +
                       " bytes, too short");
    return problems;
  }
  if (d.items.size() < listedItems)
    problems.push_back("the \"laszip encoded\" record lists " + std::to_string(listedItems) +
                       " items but holds only " + std::to_string(d.items.size()));
  const auto compressor = static_cast<std::uint16_t>(d.compressor);
  if (d.compressor != Compressor::Pointwise && d.compressor != Compressor::PointwiseChunked &&
      d.compressor != Compressor::LayeredChunked)
    problems.push_back("compressor " + std::to_string(compressor) + " is not supported");
  if (d.coder != 0)
    problems.push_back("coder " + std::to_string(d.coder) + " is not supported");
  return problems;
}

std::string contradiction(const Description& d, int format, std::size_t extraBytes) {
  std::vector<Item> expected;
  try {
    expected = itemsFor(format, extraBytes);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  const auto names = [](const std::vector<Item>& items) {
    std::string out;
    for (const Item& i : items)
      out += (out.empty() ? "" : ", ") + std::to_string(i.type) + ":" + std::to_string(i.size);
    return out;
  };
  bool same = expected.size() == d.items.size();
  for (std::size_t k = 0; same && k < expected.size(); ++k)
    same = expected[k].type == d.items[k].type && expected[k].size == d.items[k].size;
  if (same)
    return {};
  return "point format " + std::to_string(format) + " with " + std::to_string(extraBytes) +
         " extra bytes needs the items (type:size) " + names(expected) +
         ", the \"laszip encoded\" record lists " + names(d.items);
}

Description describe(const Las::Vlr& record) {
  Description d;
  RecordReader reader{record.data};
  recordTable(reader, d);
  const auto problems = validate(d, record.data.size(), reader.listed);
  if (!problems.empty())
    throw std::runtime_error(problems.front());
  return d;
}

Las::Vlr laszipRecord(int format, std::size_t extraBytes, std::uint32_t chunkSize, Description& d) {
  if (extraBytes > 0xFFFF)
    throw std::runtime_error(std::to_string(extraBytes) + " extra bytes do not fit LAZ");
  d.items = itemsFor(format, extraBytes);
  d.compressor = format <= 5 ? Compressor::PointwiseChunked : Compressor::LayeredChunked;
  d.coder = 0;
  // LASzip 3.4 revision 3, whose items these are.
  d.versionMajor = 3;
  d.versionMinor = 4;
  d.revision = 3;
  d.options = 0;
  d.chunkSize = chunkSize;
  d.specialEvlrs = d.evlrOffset = -1;
  Las::Vlr v;
  v.userId = "laszip encoded";
  v.recordId = 22204;
  v.description = "Quorvel";
  RecordWriter writer{v.data};
  recordTable(writer, d);
  return v;
}

} // namespace Quorvel::Laz
