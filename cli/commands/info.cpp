// SPDX-License-Identifier: BSD-3-Clause
// quorvel info: what a LIDAR user checks first of LAS, LAZ, bundle and raster files (header
// facts, coordinate system, bounds, GPS times, records, fields, classes, density), as text lines
// or as one JSON document (docs/info-json.md). Each file is described as one JSON object, which
// the text form then prints line by line, so both forms always tell the same.
#include "basalt/text.hpp"
#include "cli/commands/command.hpp"
#include "cli/commands/operands.hpp"
#include "io/raster.hpp"
#include "io/stream.hpp"
#include "tressel/bounding_boxes.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>

namespace Quorvel::Cli {

namespace {

using Json = nlohmann::ordered_json;

// ---- Facts as JSON --------------------------------------------------------------------------

Json xyz(const std::array<double, 3>& v) {
  return Json::array({v[0], v[1], v[2]});
}

Json bounds(const std::array<double, 3>& lo, const std::array<double, 3>& hi) {
  return {{"min", xyz(lo)}, {"max", xyz(hi)}};
}

// Nonzero counts by value, as an object keyed by the value: {"2": 1368, "6": 12525}.
template <class Counts>
Json countsByValue(const Counts& counts) {
  Json out = Json::object();
  for (std::size_t v = 0; v < counts.size(); ++v)
    if (counts[v] > 0)
      out[std::to_string(v)] = counts[v];
  return out;
}

Json coordinateSystem(const std::optional<Raster::CoordinateSystem>& cs) {
  if (!cs)
    return nullptr;
  return {{"name", cs->name},
          {"epsg", cs->epsg > 0 ? Json(cs->epsg) : Json(nullptr)},
          {"unit", cs->unit.empty() ? Json(nullptr) : Json(cs->unit)},
          {"wkt", cs->wkt}};
}

// Points per square unit of the x-y bounds; null when there are no points or the bounds have no
// area (one point, or points on a line parallel to an axis), where a density means nothing.
Json density(std::uint64_t points, const Json& bbox) {
  if (bbox.is_null())
    return nullptr;
  const double area = (bbox["max"][0].get<double>() - bbox["min"][0].get<double>()) *
                      (bbox["max"][1].get<double>() - bbox["min"][1].get<double>());
  return area > 0 ? Json(static_cast<double>(points) / area) : Json(nullptr);
}

Json records(const std::vector<Las::Vlr>& vlrs) {
  Json out = Json::array();
  for (const Las::Vlr& v : vlrs)
    out.push_back({{"user_id", v.userId},
                   {"record_id", v.recordId},
                   {"description", v.description},
                   {"length", v.data.size()}});
  return out;
}

Json fieldList(const std::vector<std::pair<std::string, std::string>>& fields) {
  Json out = Json::array();
  for (const auto& [name, type] : fields)
    out.push_back({{"name", name}, {"type", type}});
  return out;
}

// The per-point (or per-cell) fields of a loaded grid with their element types.
Json fieldsOf(const Tressel::Grid& grid) {
  std::vector<std::pair<std::string, std::string>> fields;
  if (auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D))
    for (const auto& [id, field] : rep->snapshot())
      fields.emplace_back(id->Name(),
                          field->getElementType() ? field->getElementType()->name() : "-");
  return fieldList(fields);
}

// A LAS or LAZ file from its header and one pass over its records; fragments counts the x-y tiles
// the host would make of it.
Json describeLas(const std::string& path, std::size_t fragments) {
  const Las::Summary s = Las::summarize(path, readWarnings(path));
  const Las::Header& h = s.header;
  Json extra = Json::array();
  for (const Las::ExtraBytes& e : s.extraBytes)
    extra.push_back({{"name", e.name},
                     {"type", Las::typeName(e)},
                     {"size", e.size},
                     {"described", e.described}});
  Json gps = nullptr;
  if (s.gpsTime)
    gps = {{"min", (*s.gpsTime)[0]},
           {"max", (*s.gpsTime)[1]},
           {"type", (h.globalEncoding & 1) ? "adjusted-standard" : "week"}};
  const Json bbox = s.pointCount > 0 ? bounds(s.min, s.max) : Json(nullptr);
  return {{"file", path},
          {"type", s.compressed ? "laz" : "las"},
          {"version", std::to_string(h.versionMajor) + "." + std::to_string(h.versionMinor)},
          {"point_format", h.pointFormat},
          {"record_length", h.recordLength},
          {"points", s.pointCount},
          {"points_by_return", s.headerReturns},
          {"points_by_return_counted", countsByValue(s.returnCounts)},
          {"fragments", fragments},
          {"scale", xyz(h.scale)},
          {"offset", xyz(h.offset)},
          {"header_bounds", bounds(h.min, h.max)},
          {"bbox", bbox},
          {"crs", coordinateSystem(Raster::coordinateSystemOf(h, s.vlrs, s.evlrs))},
          {"gps_time", gps},
          {"system_id", h.systemId},
          {"software", h.software},
          {"creation", {{"year", h.year}, {"day", h.day}}},
          {"vlrs", records(s.vlrs)},
          {"evlrs", records(s.evlrs)},
          {"extra_bytes", extra},
          {"fields", fieldList(s.fields)},
          {"classes", countsByValue(s.classCounts)},
          {"density", density(s.pointCount, bbox)}};
}

// A raster grid (a GeoTIFF or other GDAL raster, or a raster bundle): cells, not points.
Json describeRaster(const std::string& path, const char* type, const Tressel::Grid& grid,
                    const Raster::RasterSummary& r) {
  Json heights = nullptr;
  if (r.heights)
    heights = {{"min", (*r.heights)[0]}, {"max", (*r.heights)[1]}};
  return {
      {"file", path},
      {"type", type},
      {"columns", r.columns},
      {"rows", r.rows},
      {"cells", r.columns * r.rows},
      {"cell_size", Json::array({r.cellSizeX, r.cellSizeY})},
      {"bounds",
       {{"min", Json::array({r.min[0], r.min[1]})}, {"max", Json::array({r.max[0], r.max[1]})}}},
      {"cell_types", countsByValue(r.cellTypes)},
      {"heights", heights},
      {"crs", coordinateSystem(Raster::coordinateSystemOfWkt(r.coordinateSystem))},
      {"fields", fieldsOf(grid)}};
}

// A point bundle (or a LAS file read in tiles): the loaded grid.
Json describeCloud(const std::string& path, const Tressel::Grid& grid) {
  const std::size_t points = pointCount(grid);
  const auto positions = grid.CartesianPositions();
  Json bbox = nullptr;
  if (auto box = positions ? Tressel::getBoundingBox(*positions) : nullptr)
    bbox = bounds({box->min().x, box->min().y, box->min().z},
                  {box->max().x, box->max().y, box->max().z});
  Json classes = nullptr;
  if (grid(Tressel::StandardCartesianChart3D, "Classification")) {
    std::array<std::uint64_t, 256> histogram{};
    for (unsigned char c : classesOf(grid, "Classification", path))
      ++histogram[c];
    classes = countsByValue(histogram);
  }
  return {
      {"file", path},
      {"type", "point-bundle"},
      {"points", points},
      {"fragments", positions ? positions->nFragments() : 0},
      {"bbox", bbox},
      {"crs", coordinateSystem(Raster::coordinateSystemOfWkt(Raster::coordinateSystemOf(grid)))},
      {"fields", fieldsOf(grid)},
      {"classes", classes},
      {"density", density(points, bbox)}};
}

Json describe(const std::string& path, const Host& host) {
  const bool las = !isBundle(path) && !Raster::isRasterFile(path);
  if (las && host.common().fragmentPoints == 0)
    return describeLas(path, 1);
  const Cloud cloud = host.load(path);
  if (las) {
    // Tiles change only the fragment count; the facts still come from the records.
    const auto positions = cloud.grid->CartesianPositions();
    return describeLas(path, positions ? positions->nFragments() : 0);
  }
  if (const auto raster = Raster::summarizeRaster(*cloud.grid))
    return describeRaster(path, isBundle(path) ? "raster-bundle" : "raster", *cloud.grid, *raster);
  return describeCloud(path, *cloud.grid);
}

// A LAS or LAZ file from its header alone: no pass over the records.
Json describeHeader(const std::string& path) {
  const Las::Reader reader(path, readWarnings(path));
  const Las::FileInfo& i = reader.info();
  const Las::Header& h = i.header;
  return {{"file", path},
          {"type", reader.compressed() ? "laz" : "las"},
          {"points", h.pointCount},
          {"bbox", h.pointCount > 0 ? bounds(h.min, h.max) : Json(nullptr)},
          {"crs", coordinateSystem(Raster::coordinateSystemOf(h, i.vlrs, i.evlrs))}};
}

// ---- Text -----------------------------------------------------------------------------------

std::string numbers(const Json& values, const char* format) {
  std::string out;
  for (const Json& v : values) {
    if (!out.empty())
      out += ' ';
    out += Basalt::format(format, v.get<double>() + 0.0); // no -0
  }
  return out;
}

// Three decimals, or three significant digits below 1 (sparse points in a unit of feet).
std::string densityText(double value) {
  return Basalt::format(value >= 1 ? "%.3f" : "%.3g", value);
}

std::string box(const Json& b) {
  return numbers(b["min"], "%.3f") + " - " + numbers(b["max"], "%.3f");
}

// "1:925 2:114", from an object of counts, or from an array of counts for the values from 1 (up
// to the last that is not 0, at least 5: the 15 of LAS 1.4 are mostly zeros).
std::string counts(const Json& values) {
  std::string out;
  if (values.is_array()) {
    std::size_t shown = std::min<std::size_t>(5, values.size());
    for (std::size_t k = shown; k < values.size(); ++k)
      shown = values[k] != 0 ? k + 1 : shown;
    for (std::size_t k = 0; k < shown; ++k)
      out += " " + std::to_string(k + 1) + ":" + values[k].dump();
  } else
    for (const auto& [value, count] : values.items())
      out += " " + value + ":" + count.dump();
  return out;
}

std::string text(const Json& v) {
  return v.is_string() ? v.get<std::string>() : v.dump();
}

void printRecords(const char* title, const Json& list) {
  if (list.empty())
    return;
  std::cout << title << ":\n";
  for (const Json& r : list)
    std::cout << "  " << text(r["user_id"]) << " " << r["record_id"] << ": "
              << text(r["description"]) << " (" << r["length"] << " bytes)\n";
}

// The header lines of a LAS or LAZ file, between "points" and "bbox".
void printHeader(const Json& d) {
  std::cout << "points by return:" << counts(d["points_by_return"]) << "\n";
  // The records' own count is shown only where the header's differs from it.
  Json expected = Json::object();
  for (std::size_t k = 0; k < d["points_by_return"].size(); ++k)
    if (d["points_by_return"][k] != 0)
      expected[std::to_string(k + 1)] = d["points_by_return"][k];
  if (expected != d["points_by_return_counted"])
    std::cout << "points by return (counted):" << counts(d["points_by_return_counted"]) << "\n";
  std::cout << "fragments: " << d["fragments"] << "\n";
  std::cout << "scale: " << numbers(d["scale"], "%.15g") << "\n";
  std::cout << "offset: " << numbers(d["offset"], "%.15g") << "\n";
  std::cout << "header bounds: " << box(d["header_bounds"]) << "\n";
}

void printCoordinateSystem(const Json& crs) {
  if (crs.is_null()) {
    std::cout << "crs: unknown\n";
    return;
  }
  std::cout << "crs: " << text(crs["name"]);
  if (!crs["epsg"].is_null())
    std::cout << " (EPSG:" << crs["epsg"] << ")";
  std::cout << "\n";
  if (!crs["unit"].is_null())
    std::cout << "crs unit: " << text(crs["unit"]) << "\n";
}

void printLasExtras(const Json& d) {
  if (!d["gps_time"].is_null())
    std::cout << "gps time: "
              << Basalt::format("%.6f - %.6f", d["gps_time"]["min"].get<double>(),
                                d["gps_time"]["max"].get<double>())
              << (d["gps_time"]["type"] == "week" ? " (GPS week time)"
                                                  : " (adjusted standard GPS time)")
              << "\n";
  std::cout << "software: " << text(d["software"]) << "\n";
  std::cout << "system: " << text(d["system_id"]) << "\n";
  std::cout << "created: day " << d["creation"]["day"] << " of " << d["creation"]["year"] << "\n";
  printRecords("vlrs", d["vlrs"]);
  printRecords("evlrs", d["evlrs"]);
  if (!d["extra_bytes"].empty()) {
    std::cout << "extra bytes:\n";
    for (const Json& e : d["extra_bytes"])
      std::cout << "  " << text(e["name"]) << ": " << text(e["type"]) << "\n";
  }
}

void printFields(const Json& fields) {
  std::cout << "fields:\n";
  for (const Json& f : fields)
    std::cout << "  " << text(f["name"]) << ": " << text(f["type"]) << "\n";
}

void printRaster(const Json& d) {
  std::cout << "cells: " << d["columns"] << " x " << d["rows"] << " (" << d["cells"] << ")\n";
  std::cout << "cell size: " << numbers(d["cell_size"], "%.15g") << "\n";
  std::cout << "bounds: " << box(d["bounds"]) << "\n";
  std::cout << "cell types:" << counts(d["cell_types"]) << "\n";
  if (!d["heights"].is_null())
    std::cout << Basalt::format("heights: %.3f - %.3f\n", d["heights"]["min"].get<double>(),
                                d["heights"]["max"].get<double>());
  printCoordinateSystem(d["crs"]);
  printFields(d["fields"]);
}

// One line of a file: "FILE: TYPE, N points, bbox ..., crs ...".
void printBrief(const Json& d) {
  std::cout << text(d["file"]) << ": " << text(d["type"]) << ", "
            << d.value("points", std::uint64_t{0}) << " points";
  if (d.contains("cells"))
    std::cout << ", " << d["cells"] << " cells";
  if (!d["bbox"].is_null())
    std::cout << ", bbox " << box(d["bbox"]);
  if (d.contains("crs") && !d["crs"].is_null())
    std::cout << ", crs " << text(d["crs"]["name"]);
  std::cout << "\n";
}

// The line after several files: their points and cells, the bounds of them all and their
// classes (where the files were read through, not from headers alone).
void printTotal(const Json& described) {
  std::uint64_t points = 0, cells = 0;
  Json all = nullptr;
  std::array<std::uint64_t, 256> classes{};
  bool counted = false;
  for (const Json& d : described) {
    points += d.value("points", std::uint64_t{0});
    cells += d.value("cells", std::uint64_t{0});
    if (d.contains("bbox") && !d["bbox"].is_null()) {
      if (all.is_null())
        all = d["bbox"];
      for (std::size_t a = 0; a < 3; ++a) {
        all["min"][a] = std::min(all["min"][a].get<double>(), d["bbox"]["min"][a].get<double>());
        all["max"][a] = std::max(all["max"][a].get<double>(), d["bbox"]["max"][a].get<double>());
      }
    }
    if (d.contains("classes") && d["classes"].is_object()) {
      counted = true;
      for (const auto& [value, n] : d["classes"].items())
        classes[std::stoul(value)] += n.get<std::uint64_t>();
    }
  }
  std::cout << "total: " << described.size() << " files, " << points << " points"
            << (cells > 0 ? ", " + std::to_string(cells) + " cells" : std::string());
  if (!all.is_null())
    std::cout << ", bbox " << box(all);
  if (counted)
    std::cout << ", classes" << counts(countsByValue(classes));
  std::cout << "\n";
}

void printText(const Json& d) {
  std::cout << "file: " << text(d["file"]) << "\n";
  const std::string type = d["type"];
  const bool las = type == "las" || type == "laz";
  std::cout << "type: " << type << "\n";
  if (type == "raster" || type == "raster-bundle")
    return printRaster(d);
  if (las)
    std::cout << "version: " << text(d["version"]) << "\npoint format: " << d["point_format"]
              << "\nrecord length: " << d["record_length"] << "\n";
  std::cout << "points: " << d["points"] << "\n";
  if (las)
    printHeader(d);
  else
    std::cout << "fragments: " << d["fragments"] << "\n";
  if (!d["bbox"].is_null())
    std::cout << "bbox: " << box(d["bbox"]) << "\n";
  printCoordinateSystem(d["crs"]);
  if (las)
    printLasExtras(d);
  printFields(d["fields"]);
  if (!d["classes"].is_null())
    std::cout << "classes:" << counts(d["classes"]) << "\n";
  if (!d["bbox"].is_null())
    std::cout << (d["density"].is_null()
                      ? std::string("density: none (the points' x-y bounds have no area)")
                      : "density: " + densityText(d["density"].get<double>()) +
                            " points per square unit")
              << "\n";
}

// ---- The command ----------------------------------------------------------------------------

class Info final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("FILE", operands_,
                   "LAS, LAZ, bundle or raster files, or directories (their LAS, LAZ and bundle "
                   "files, by name)")
        ->required();
    app.add_flag("--json", json_, "one JSON document: an object, or an array for several files");
    app.add_flag("--brief", brief_,
                 "one line per file (type, points, bounds, CRS), LAS and LAZ files from their "
                 "headers alone, then the total for several files");
  }

  int run(const Host& host) override {
    // Everything is gathered before anything is printed, so a failure leaves no partial document.
    const std::vector<std::string> files = filesOf(operands_);
    Json described = Json::array();
    for (const std::string& file : files)
      described.push_back(brief_ && !isBundle(file) && !Raster::isRasterFile(file)
                              ? describeHeader(file)
                              : describe(file, host));
    if (json_) {
      // Texts of the file (record descriptions) need not be UTF-8; JSON must be.
      std::cout << (described.size() == 1 ? described[0] : described)
                       .dump(2, ' ', false, Json::error_handler_t::replace)
                << "\n";
      return 0;
    }
    for (std::size_t k = 0; k < described.size(); ++k) {
      if (brief_) {
        printBrief(described[k]);
        continue;
      }
      std::cout << (k > 0 ? "\n" : "");
      printText(described[k]);
    }
    if (described.size() > 1) {
      std::cout << (brief_ ? "" : "\n");
      printTotal(described);
    }
    return 0;
  }

private:
  std::vector<std::string> operands_;
  bool json_ = false, brief_ = false;
};

} // namespace

std::unique_ptr<Command> makeInfo() {
  return std::make_unique<Info>();
}

} // namespace Quorvel::Cli
