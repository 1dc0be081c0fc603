// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAS origin of a grid (header values, VLRs, EVLRs) as grid attributes, so that
// bundles keep it and a LAS written from a bundle matches the LAS it came from. The layout is
// documented in docs/bundle-format.md ("LAS origin").
#include "io/las.hpp"

#include "io/detail/las_header.hpp"

#include "basalt/chunk.hpp"

#include <cstring>

namespace Quorvel::Las {

namespace {

constexpr const char* Prefix = "LAS.";

template <class T>
void put(Basalt::Attributes& a, const std::string& name, std::vector<T> values) {
  a.setAttribute(Prefix + name, std::make_shared<Basalt::Chunk<T>>(std::move(values)));
}

void putText(Basalt::Attributes& a, const std::string& name, const std::string& text) {
  put(a, name, std::vector<std::uint8_t>(text.begin(), text.end()));
}

template <class T>
std::vector<T> get(const Basalt::Attributes& a, const std::string& name, std::size_t count,
                   bool& complete) {
  const auto chunk = Basalt::chunkCast<T>(a.getAttribute(Prefix + name));
  if (!chunk || (count != 0 && chunk->size() != count)) {
    complete = false;
    return std::vector<T>(count);
  }
  return chunk->values();
}

std::string getText(const Basalt::Attributes& a, const std::string& name, bool& complete) {
  const auto bytes = get<std::uint8_t>(a, name, 0, complete);
  return std::string(bytes.begin(), bytes.end());
}

void putRecords(Basalt::Attributes& a, const std::string& kind, const std::vector<Vlr>& records) {
  put(a, kind + "Count", std::vector<std::uint32_t>{static_cast<std::uint32_t>(records.size())});
  for (std::size_t k = 0; k < records.size(); ++k) {
    const Vlr& v = records[k];
    const std::string name = kind + "." + std::to_string(k) + ".";
    putText(a, name + "UserId", v.userId);
    put(a, name + "RecordId", std::vector<std::uint16_t>{v.recordId});
    put(a, name + "Reserved", std::vector<std::uint16_t>{v.reserved});
    putText(a, name + "Description", v.description);
    put(a, name + "Data", v.data);
  }
}

std::vector<Vlr> getRecords(const Basalt::Attributes& a, const std::string& kind, bool& complete) {
  const auto count = get<std::uint32_t>(a, kind + "Count", 1, complete)[0];
  std::vector<Vlr> records;
  for (std::uint32_t k = 0; k < count && complete; ++k) {
    const std::string name = kind + "." + std::to_string(k) + ".";
    Vlr v;
    v.userId = getText(a, name + "UserId", complete);
    v.recordId = get<std::uint16_t>(a, name + "RecordId", 1, complete)[0];
    v.reserved = get<std::uint16_t>(a, name + "Reserved", 1, complete)[0];
    v.description = getText(a, name + "Description", complete);
    v.data = get<std::uint8_t>(a, name + "Data", 0, complete);
    records.push_back(std::move(v));
  }
  return records;
}

} // namespace

void setFileInfo(Tressel::Grid& grid, const FileInfo& info) {
  Basalt::Attributes& a = grid.attributes();
  for (const std::string& name : a.attributeNames())
    if (name.rfind(Prefix, 0) == 0)
      a.removeAttribute(name);
  const Header& h = info.header;
  put(a, "Version", std::vector<std::uint8_t>{h.versionMajor, h.versionMinor});
  put(a, "PointFormat", std::vector<std::uint8_t>{h.pointFormat});
  put(a, "Scale", std::vector<double>(h.scale.begin(), h.scale.end()));
  put(a, "Offset", std::vector<double>(h.offset.begin(), h.offset.end()));
  putText(a, "SystemIdentifier", h.systemId);
  putText(a, "GeneratingSoftware", h.software);
  put(a, "FileSourceId", std::vector<std::uint16_t>{h.fileSourceId});
  put(a, "GlobalEncoding", std::vector<std::uint16_t>{h.globalEncoding});
  put(a, "Guid", std::vector<std::uint8_t>(h.guid.begin(), h.guid.end()));
  put(a, "CreationDate", std::vector<std::uint16_t>{h.day, h.year});
  putRecords(a, "Vlr", info.vlrs);
  putRecords(a, "Evlr", info.evlrs);
  std::string names;
  for (const ExtraBytes& e : info.extraBytes)
    names += e.name + "\n";
  putText(a, "ExtraBytesFields", names);
  put(a, "RecordLength", std::vector<std::uint16_t>{h.recordLength});
}

std::optional<FileInfo> fileInfo(const Tressel::Grid& grid) {
  const Basalt::Attributes& a = grid.attributes();
  if (!a.getAttribute(std::string(Prefix) + "Version"))
    return std::nullopt;
  bool complete = true;
  FileInfo info;
  Header& h = info.header;
  const auto version = get<std::uint8_t>(a, "Version", 2, complete);
  h.versionMajor = version[0];
  h.versionMinor = version[1];
  h.pointFormat = get<std::uint8_t>(a, "PointFormat", 1, complete)[0];
  const auto scale = get<double>(a, "Scale", 3, complete);
  const auto offset = get<double>(a, "Offset", 3, complete);
  std::copy(scale.begin(), scale.end(), h.scale.begin());
  std::copy(offset.begin(), offset.end(), h.offset.begin());
  h.systemId = getText(a, "SystemIdentifier", complete);
  h.software = getText(a, "GeneratingSoftware", complete);
  h.fileSourceId = get<std::uint16_t>(a, "FileSourceId", 1, complete)[0];
  h.globalEncoding = get<std::uint16_t>(a, "GlobalEncoding", 1, complete)[0];
  const auto guid = get<std::uint8_t>(a, "Guid", 16, complete);
  std::copy(guid.begin(), guid.end(), h.guid.begin());
  const auto date = get<std::uint16_t>(a, "CreationDate", 2, complete);
  h.day = date[0];
  h.year = date[1];
  info.vlrs = getRecords(a, "Vlr", complete);
  info.evlrs = getRecords(a, "Evlr", complete);
  if (!complete || h.pointFormat >= 11)
    throw Error("grid \"" + grid.Name() + "\": incomplete LAS attributes");
  // The descriptors come from the extra-bytes record; the field names from the list, which
  // keeps the names the reader made unique.
  detail::Findings ignored;
  bool known = true;
  h.recordLength = get<std::uint16_t>(a, "RecordLength", 1, known)[0];
  if (!known) // without it, no bytes beyond the descriptors
    h.recordLength = 0xFFFF;
  info.extraBytes = detail::parseExtraBytes(info, ignored);
  if (!known)
    std::erase_if(info.extraBytes, [](const ExtraBytes& e) { return !e.described; });
  std::string names = getText(a, "ExtraBytesFields", complete);
  for (ExtraBytes& e : info.extraBytes) {
    const auto end = names.find('\n');
    if (end == std::string::npos)
      break;
    if (end > 0)
      e.name = names.substr(0, end);
    names.erase(0, end + 1);
  }
  return info;
}

} // namespace Quorvel::Las
