// SPDX-License-Identifier: BSD-3-Clause
// quorvel crop: the points inside a box or inside the polygons of a vector file (or outside
// them), with all their fields.
#include "cli/commands/command.hpp"
#include "io/raster.hpp"
#include "quorvel/filters/filters.hpp"

namespace Quorvel::Cli {

namespace {

class Crop final : public CloudCommand {
public:
  Crop() : CloudCommand("crop") {}

  void addStageOptions(CLI::App& app) override {
    auto* box = app.add_option_function<std::string>(
        "--box", [this](const std::string& text) { box_.box = parseBox(text); },
        "the area XMIN,YMIN,XMAX,YMAX in the cloud's units (edges inside)");
    polygon_ = app.add_option("--polygon", polygonPath_,
                              "a vector file GDAL reads (GeoPackage, GeoJSON, Shapefile): the "
                              "union of its layer's polygons, holes excluded, boundaries inside");
    app.add_option("--layer", layer_, "the layer of --polygon (default: its first)")
        ->needs(polygon_);
    app.add_option("--feature-filter", filter_,
                   "OGR's attribute filter on the features, an SQL WHERE clause (\"class = 'A'\")")
        ->needs(polygon_);
    box->excludes(polygon_);
    addField(app, box_, &CropParameterBox::inverse);
    addExpression(app, "--where", box_.where,
                  "test only the points for which an expression holds (docs/expressions.md); "
                  "the others are kept as they are");
    app.footer("Exactly one of --box and --polygon. Polygons in another coordinate system than the "
               "cloud's are carried into the cloud's; a cloud without one takes them as they are.");
    box_.box = {0, 0, -1, -1};
  }

  std::vector<const CLI::Option*> inputFiles() const override { return {polygon_}; }
  bool opensGdal() const override { return !polygonPath_.empty(); }

  void apply(Cloud& cloud, const Host& host) override { keep(cloud, keptPoints(cloud, host)); }
  std::optional<std::set<std::string>> fieldsForKeeping() const override {
    return fieldsOf(box_.where);
  }

  std::optional<KeptPoints> keptPoints(Cloud& cloud, const Host& host) override {
    if (polygonPath_.empty() && !(box_.box[0] <= box_.box[2]))
      throw Error("crop: give --box XMIN,YMIN,XMAX,YMAX or --polygon FILE");
    box_.message.clear();
    if (!polygonPath_.empty())
      box_.polygons = Raster::readPolygons(polygonPath_, layer_, filter_,
                                           Raster::coordinateSystemOf(*cloud.grid));
    std::optional<KeptPoints> kept;
    host.run("crop", pointCount(*cloud.grid), [&] { kept = keptByCrop(cloud.grid, box_); });
    if (!kept)
      throw Error("crop: " + box_.message);
    return kept;
  }

private:
  static std::array<double, 4> parseBox(const std::string& text) {
    std::array<double, 4> v{};
    std::size_t k = 0, at = 0;
    for (; k < 4; ++k) {
      const std::size_t comma = text.find(',', at);
      const auto value = finiteNumber(text.substr(at, comma - at));
      if (!value || (k < 3) != (comma != std::string::npos))
        break;
      v[k] = *value;
      at = comma + 1;
    }
    if (k < 4 || v[0] > v[2] || v[1] > v[3])
      throw CLI::ValidationError("--box", "\"" + text +
                                              "\" is not XMIN,YMIN,XMAX,YMAX (four finite "
                                              "numbers, XMIN <= XMAX and YMIN <= YMAX)");
    return v;
  }

  CropParameterBox box_;
  CLI::Option* polygon_ = nullptr;
  std::string polygonPath_, layer_, filter_;
};

} // namespace

std::unique_ptr<Command> makeCrop() {
  return std::make_unique<Crop>();
}

} // namespace Quorvel::Cli
