// SPDX-License-Identifier: BSD-3-Clause
// quorvel index: the footprints of a survey's LAS and LAZ files, from their headers alone, as a
// GeoPackage for QGIS or as GeoJSON.
#include "cli/commands/command.hpp"
#include "cli/commands/operands.hpp"
#include "io/raster.hpp"

#include <nlohmann/json.hpp>

#include <iostream>

namespace Quorvel::Cli {

namespace {

using Json = nlohmann::ordered_json;

Json geoJson(const std::vector<Raster::Footprint>& footprints) {
  Json features = Json::array();
  for (const Raster::Footprint& f : footprints) {
    const Json ring =
        Json::array({Json::array({f.min[0], f.min[1]}), Json::array({f.max[0], f.min[1]}),
                     Json::array({f.max[0], f.max[1]}), Json::array({f.min[0], f.max[1]}),
                     Json::array({f.min[0], f.min[1]})});
    features.push_back({{"type", "Feature"},
                        {"geometry", {{"type", "Polygon"}, {"coordinates", Json::array({ring})}}},
                        {"properties",
                         {{"file", f.file},
                          {"type", f.type},
                          {"points", f.points},
                          {"point_format", f.pointFormat},
                          {"min_z", f.min[2]},
                          {"max_z", f.max[2]}}}});
  }
  return {{"type", "FeatureCollection"}, {"features", features}};
}

class Index final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("INPUT", operands_, "LAS or LAZ files, or directories (their LAS and LAZ files)")
        ->required();
    auto* out = app.add_option("-o,--output", output_,
                               "the GeoPackage to write (.gpkg), layer \"footprints\"");
    app.add_flag("--json", json_, "print the footprints as GeoJSON instead")->excludes(out);
  }

  int run(const Host&) override {
    if (!json_ && output_.empty())
      throw CLI::ValidationError("-o", "index needs -o INDEX.gpkg or --json");
    if (!output_.empty())
      checkOutput(output_);
    std::vector<Raster::Footprint> footprints;
    std::optional<Raster::CoordinateSystem> cs;
    std::string key, first;
    for (const std::string& file : filesOf(operands_)) {
      if (Files::isBundle(file))
        throw Error(file + ": index reads LAS and LAZ files, not bundles");
      const Las::Reader reader(file, readWarnings(file));
      const Las::FileInfo& info = reader.info();
      const std::string crs = Raster::coordinateSystemKey(info);
      if (first.empty()) {
        first = file;
        key = crs;
        cs = Raster::coordinateSystemOf(info.header, info.vlrs, info.evlrs);
      } else if (crs != key)
        throw Error(file + ": " + crs + ", " + first + ": " + key +
                    "; the files of an index must share one coordinate system");
      const Las::Header& h = info.header;
      footprints.push_back(
          {file, reader.compressed() ? "laz" : "las", h.pointCount, h.min, h.max, h.pointFormat});
    }
    if (json_)
      std::cout << geoJson(footprints).dump(2) << "\n";
    else
      Raster::writeFootprints(output_, footprints, cs);
    return 0;
  }

private:
  std::vector<std::string> operands_;
  std::string output_;
  bool json_ = false;
};

} // namespace

std::unique_ptr<Command> makeIndex() {
  return std::make_unique<Index>();
}

} // namespace Quorvel::Cli
