// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: coordinate systems of LAS files and rasters as GDAL reads them, with their names,
// EPSG codes and units.
#include "io/detail/gdal.hpp"
#include "io/detail/raster.hpp"

#include <cpl_conv.h>
#include <cpl_vsi.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <tuple>
#include <utility>

namespace Quorvel::Raster {

namespace {

bool isRecord(const Las::Vlr& v, std::uint16_t id) {
  return v.userId == "LASF_Projection" && v.recordId == id;
}

const Las::Vlr* findRecord(const std::vector<Las::Vlr>& vlrs, const std::vector<Las::Vlr>& evlrs,
                           std::uint16_t id) {
  for (const auto* records : {&vlrs, &evlrs})
    for (const Las::Vlr& v : *records)
      if (isRecord(v, id))
        return &v;
  return nullptr;
}

// The EPSG code a coordinate system names itself, with its name.
std::optional<std::pair<int, std::string>> ownEpsg(const OGRSpatialReference& reference) {
  const char* authority = reference.GetAuthorityName(nullptr);
  const char* code = reference.GetAuthorityCode(nullptr);
  if (!authority || !code || std::strcmp(authority, "EPSG") != 0)
    return std::nullopt;
  const char* name = reference.GetName();
  return std::pair{std::atoi(code), std::string(name ? name : "")};
}

// The EPSG code of a coordinate system: the one it names, else the first entry of the registry
// that PROJ finds equivalent to it (confidence 70 or more: the same definition under another
// name, as for WKT in ESRI's words).
std::optional<std::pair<int, std::string>> epsgOf(const OGRSpatialReference& reference) {
  if (auto own = ownEpsg(reference))
    return own;
  int count = 0;
  int* confidence = nullptr;
  OGRSpatialReferenceH* matches = reference.FindMatches(nullptr, &count, &confidence);
  std::optional<std::pair<int, std::string>> found;
  for (int k = 0; k < count && !found && confidence[k] >= 70; ++k)
    found = ownEpsg(*OGRSpatialReference::FromHandle(matches[k]));
  OSRFreeSRSArray(matches);
  CPLFree(confidence);
  return found;
}

std::optional<CoordinateSystem> describe(const OGRSpatialReference& reference) {
  CoordinateSystem cs;
  char* text = nullptr;
  if (reference.exportToWkt(&text) == OGRERR_NONE && text)
    cs.wkt = text;
  CPLFree(text);
  if (cs.wkt.empty())
    return std::nullopt;
  if (const char* name = reference.GetName())
    cs.name = name;
  if (const auto epsg = epsgOf(reference))
    std::tie(cs.epsg, cs.name) = *epsg;
  const char* unit = nullptr;
  if (reference.IsGeographic())
    reference.GetAngularUnits(&unit);
  else
    reference.GetLinearUnits(&unit);
  if (unit && std::strcmp(unit, "unknown") != 0)
    cs.unit = unit;
  return cs;
}

// A little-endian TIFF of one 8-bit pixel whose directory holds the GeoTIFF keys of a LAS file,
// so that GDAL reads them exactly as it reads a GeoTIFF's.
class KeysAsTiff {
public:
  KeysAsTiff(const Las::Vlr& keys, const Las::Vlr* numbers, const Las::Vlr* texts) {
    std::vector<std::uint8_t> ascii;
    if (texts) {
      ascii = texts->data;
      ascii.push_back(0);
    }
    // Entries in ascending tag order, as TIFF requires.
    entry(256, Short, 1, 1); // ImageWidth
    entry(257, Short, 1, 1); // ImageLength
    entry(258, Short, 1, 8); // BitsPerSample
    entry(259, Short, 1, 1); // Compression: none
    entry(262, Short, 1, 1); // PhotometricInterpretation: black is zero
    entry(273, Long, 1, 0);  // StripOffsets: the pixel, placed below
    entry(277, Short, 1, 1); // SamplesPerPixel
    entry(278, Short, 1, 1); // RowsPerStrip
    entry(279, Long, 1, 1);  // StripByteCounts
    blob(34735, Short, keys.data);
    if (numbers)
      blob(34736, Double, numbers->data);
    if (texts)
      blob(34737, Ascii, ascii);
    assemble();
  }

  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

private:
  enum Type : std::uint16_t { Ascii = 2, Short = 3, Long = 4, Double = 12 };
  struct Entry {
    std::uint16_t tag, type;
    std::uint32_t count, value;
    std::vector<std::uint8_t> data; // stored after the directory when it holds more than 4 bytes
  };

  void entry(std::uint16_t tag, Type type, std::uint32_t count, std::uint32_t value) {
    entries_.push_back({tag, type, count, value, {}});
  }
  void blob(std::uint16_t tag, Type type, const std::vector<std::uint8_t>& data) {
    const std::size_t size = type == Double ? 8 : (type == Short ? 2 : 1);
    entries_.push_back({tag, type, static_cast<std::uint32_t>(data.size() / size), 0, data});
    entries_.back().data.resize(data.size() / size * size);
  }
  template <class T>
  void put(std::size_t at, T value) {
    std::memcpy(bytes_.data() + at, &value, sizeof(T));
  }

  void assemble() {
    const std::size_t directory = 8, count = entries_.size();
    bytes_.assign(directory + 2 + 12 * count + 4, 0);
    bytes_[0] = bytes_[1] = 'I';
    put<std::uint16_t>(2, 42);
    put<std::uint32_t>(4, directory);
    put<std::uint16_t>(directory, static_cast<std::uint16_t>(count));
    for (std::size_t k = 0; k < count; ++k) {
      Entry& e = entries_[k];
      const std::size_t at = directory + 2 + 12 * k;
      put(at, e.tag);
      put(at + 2, e.type);
      put(at + 4, e.count);
      if (e.tag == 273)
        e.value = static_cast<std::uint32_t>(bytes_.size()); // the pixel comes right after
      if (e.data.size() > 4) {
        e.value = static_cast<std::uint32_t>(bytes_.size() + bytes_.size() % 2); // word aligned
        put(at + 8, e.value);
        bytes_.resize(e.value);
        bytes_.insert(bytes_.end(), e.data.begin(), e.data.end());
      } else if (!e.data.empty()) {
        std::memcpy(bytes_.data() + at + 8, e.data.data(), e.data.size());
      } else if (e.type == Short) {
        put(at + 8, static_cast<std::uint16_t>(e.value));
      } else {
        put(at + 8, e.value);
      }
      if (e.tag == 273)
        bytes_.push_back(0); // the pixel
    }
  }

  std::vector<Entry> entries_;
  std::vector<std::uint8_t> bytes_;
};

std::optional<CoordinateSystem> fromGeoKeys(const Las::Vlr& keys, const Las::Vlr* numbers,
                                            const Las::Vlr* texts) {
  if (keys.data.size() < 8)
    return std::nullopt;
  detail::registerDrivers();
  static std::atomic<unsigned> serial{0};
  const std::string name = "/vsimem/quorvel-geokeys-" + std::to_string(++serial) + ".tif";
  const KeysAsTiff tiff(keys, numbers, texts);
  VSILFILE* file = VSIFileFromMemBuffer(name.c_str(), const_cast<GByte*>(tiff.bytes().data()),
                                        tiff.bytes().size(), FALSE);
  if (!file)
    return std::nullopt;
  VSIFCloseL(file);
  std::optional<CoordinateSystem> cs;
  {
    const std::unique_ptr<GDALDataset, void (*)(GDALDataset*)> data(
        GDALDataset::FromHandle(
            GDALOpenEx(name.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY, nullptr, nullptr, nullptr)),
        [](GDALDataset* d) { GDALClose(d); });
    if (data)
      if (const OGRSpatialReference* reference = data->GetSpatialRef())
        cs = describe(*reference);
  }
  VSIUnlink(name.c_str());
  return cs;
}

} // namespace

namespace Gdal {

std::optional<CoordinateSystem> coordinateSystemOfWkt(const std::string& wkt) {
  // GDAL's own messages on a broken text would repeat ours on standard error.
  detail::registerDrivers();
  OGRSpatialReference reference;
  if (wkt.empty() || reference.importFromWkt(wkt.c_str()) != OGRERR_NONE)
    return std::nullopt;
  return describe(reference);
}

std::optional<CoordinateSystem> coordinateSystemOf(const Las::Header& header,
                                                   const std::vector<Las::Vlr>& vlrs,
                                                   const std::vector<Las::Vlr>& evlrs) {
  const auto fromWkt = [&]() -> std::optional<CoordinateSystem> {
    const Las::Vlr* wkt = findRecord(vlrs, evlrs, 2112);
    if (!wkt)
      return std::nullopt;
    const std::string text(wkt->data.begin(), wkt->data.end());
    return coordinateSystemOfWkt(text.substr(0, text.find('\0')));
  };
  const auto fromKeys = [&]() -> std::optional<CoordinateSystem> {
    const Las::Vlr* keys = findRecord(vlrs, evlrs, 34735);
    if (!keys)
      return std::nullopt;
    return fromGeoKeys(*keys, findRecord(vlrs, evlrs, 34736), findRecord(vlrs, evlrs, 34737));
  };
  const bool wktCounts = (header.globalEncoding & 16) != 0;
  auto cs = wktCounts ? fromWkt() : fromKeys();
  return cs ? cs : (wktCounts ? fromKeys() : fromWkt());
}

std::string coordinateSystemKey(const Las::FileInfo& info) {
  const auto cs = coordinateSystemOf(info.header, info.vlrs, info.evlrs);
  if (!cs)
    return "no coordinate system";
  return cs->epsg ? "EPSG:" + std::to_string(cs->epsg) + " (" + cs->name + ")" : cs->wkt;
}

std::string coordinateSystemOf(const Tressel::Grid& cloud, const Las::Warn& warn) {
  const auto info = Las::fileInfo(cloud);
  // What a raster made from the cloud carries: GeoTIFF keys with a vertical system give the
  // compound system, so that its heights keep their datum (info and index name the horizontal
  // system by its EPSG code and read the keys as GDAL reports them by default).
  detail::registerDrivers();
  CPLSetThreadLocalConfigOption("GTIFF_REPORT_COMPD_CS", "YES");
  const auto cs = info ? coordinateSystemOf(info->header, info->vlrs, info->evlrs) : std::nullopt;
  CPLSetThreadLocalConfigOption("GTIFF_REPORT_COMPD_CS", nullptr);
  if (!cs && info && warn &&
      (findRecord(info->vlrs, info->evlrs, 2112) || findRecord(info->vlrs, info->evlrs, 34735)))
    warn("its coordinate system records (WKT or GeoTIFF keys) hold no coordinate system GDAL "
         "reads (empty or broken): the result has none");
  return cs ? cs->wkt : std::string();
}

} // namespace Gdal

} // namespace Quorvel::Raster
