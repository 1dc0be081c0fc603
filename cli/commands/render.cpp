// SPDX-License-Identifier: BSD-3-Clause
// quorvel render: pictures of clouds (top views and profiles, by class or by value) and of
// rasters (heights and hillshades), as georeferenced PNG or GeoTIFF.
#include "quorvel/render/render.hpp"
#include "cli/commands/command.hpp"
#include "io/raster.hpp"
#include "quorvel/core/checks.hpp"

#include <nlohmann/json.hpp>

#include <fstream>
#include <iostream>

namespace Quorvel::Cli {

namespace {

const char* const Footer =
    R"(A top view shows in every pixel the highest point in it, in its class's colour (--palette
prints the palette) or its value's on a viridis ramp from --range LOW:HIGH (default: the 2nd to
98th percentile of the values drawn); pixels without points are transparent. Pixels of --pixel
metres lie at multiples of it; --size W[xH] fits the cloud into W x H pixels instead (default:
the longer side 1000 pixels). A .png gets a world file (.pgw) beside it, a .tif is a GeoTIFF with
the cloud's coordinate system. --view profile draws the points within --width metres of the line
--from X,Y --to X,Y: along the line to the right, z up, seen from the right of the line (the
nearest point of a pixel shows). A raster (DTM.tif, a raster bundle) is drawn pixel for pixel by
height, or with --hillshade as gdaldem's hillshade (light from azimuth 315, altitude 45), grey or,
with --by z, coloured by height. --palette FILE.json replaces classes' colours:
{"6": "#1b6b24", "7": {"colour": "#ff00ff", "name": "noise"}}.)";

std::pair<double, double> pairOf(const std::string& option, const std::string& text, char sep) {
  const auto at = text.find(sep);
  const auto a = Checks::finiteNumber(text.substr(0, at));
  const auto b = at == std::string::npos ? std::nullopt : Checks::finiteNumber(text.substr(at + 1));
  if (!a || !b)
    throw CLI::ValidationError(option, std::string("takes two finite numbers A") + sep +
                                           "B, not \"" + text + "\"");
  return {*a, *b};
}

// The classes' styles of a palette file; throws Error naming the file and the entry.
std::vector<std::pair<std::uint32_t, Render::ClassStyle>> readPalette(const std::string& path) {
  std::ifstream in(path);
  if (!in)
    throw Error(path + ": cannot read the palette file");
  nlohmann::json json;
  try {
    json = nlohmann::json::parse(in);
  } catch (const nlohmann::json::exception& e) {
    throw Error(path + ": not JSON: " + e.what());
  }
  if (!json.is_object())
    throw Error(path + ": a palette is a JSON object {\"class\": \"#rrggbb\", ...}");
  std::vector<std::pair<std::uint32_t, Render::ClassStyle>> out;
  for (const auto& [key, value] : json.items()) {
    const auto cls = Checks::finiteNumber(key);
    const nlohmann::json colour =
        value.is_object() ? value.value("colour", nlohmann::json()) : value;
    Render::ClassStyle style;
    if (!cls || *cls < 0 || *cls > 255 || *cls != static_cast<int>(*cls))
      throw Error(path + ": \"" + key + "\" is not a class from 0 to 255");
    if (!colour.is_string() || !Render::parseColour(colour.get<std::string>(), style.colour))
      throw Error(path + ": class " + key + ": the colour is not \"#rrggbb\" or \"#rrggbbaa\"");
    if (value.is_object() && value.contains("name") && value["name"].is_string())
      style.name = value["name"].get<std::string>();
    out.emplace_back(static_cast<std::uint32_t>(*cls), style);
  }
  return out;
}

class Render final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", input_, "the cloud (LAS, LAZ, bundle) or raster (GeoTIFF, raster bundle)");
    app.add_option("-o,--output", output_, "the picture (.png, with a .pgw beside it, or .tif)");
    using Box = RenderParameterBox;
    addField(app, box_, &Box::by, Default::Hidden);
    addField(app, box_, &Box::view);
    addField(app, box_, &Box::pixel, Default::Hidden);
    app.add_option_function<std::string>(
        "--size",
        [this](const std::string& text) {
          const auto [w, h] = text.find('x') == std::string::npos
                                  ? pairOf("--size", text + "x0", 'x')
                                  : pairOf("--size", text, 'x');
          const auto* rule = Checks::checkOf("RenderParameterBox", "width");
          for (double v : {w, h})
            if (auto problem = Checks::problem(*rule, v))
              throw CLI::ValidationError("--size", *problem);
          box_.width = static_cast<std::size_t>(w), box_.height = static_cast<std::size_t>(h);
        },
        "the picture's pixels W or WxH at most (the cloud fitted into them)");
    addField(app, box_, &Box::classes);
    app.add_option_function<std::string>(
        "--range",
        [this](const std::string& text) {
          std::tie(box_.range_low, box_.range_high) = pairOf("--range", text, ':');
          if (!(box_.range_low < box_.range_high))
            throw CLI::ValidationError("--range", "LOW must be below HIGH in \"" + text + "\"");
        },
        "LOW:HIGH, the values from the ramp's first to its last colour");
    addField(app, box_, &Box::legend);
    addField(app, box_, &Box::shade);
    addField(app, box_, &Box::hillshade);
    app.add_option_function<std::string>(
        "--from",
        [this](const std::string& text) {
          std::tie(box_.from_x, box_.from_y) = pairOf("--from", text, ',');
        },
        "X,Y: where a profile starts");
    app.add_option_function<std::string>(
        "--to",
        [this](const std::string& text) {
          std::tie(box_.to_x, box_.to_y) = pairOf("--to", text, ',');
        },
        "X,Y: where a profile ends");
    addField(app, box_, &Box::corridor);
    app.add_option("--palette", palette_, "print the class palette, or replace colours from JSON")
        ->expected(0, 1);
    app.add_option("--height-field", heightField_, "rasters: the field of the heights")
        ->capture_default_str();
    palettePrint_ = app.get_option("--palette");
    app.footer(Footer);
  }

  int run(const Host& host) override {
    if (palettePrint_->count() > 0 && palette_.empty()) {
      std::cout << Quorvel::Render::paletteText();
      return 0;
    }
    if (input_.empty() || output_.empty())
      throw CLI::ValidationError("render", "needs IN and -o OUT.png (or --palette to print it)");
    if (box_.view == "profile" && (box_.from_x == box_.to_x && box_.from_y == box_.to_y))
      throw CLI::ValidationError("--from", "a profile needs --from X,Y and --to X,Y apart");
    checkOutput(output_);
    if (!palette_.empty())
      box_.palette = readPalette(palette_);
    const Cloud cloud = host.load(input_, {"Classification", fieldName()});
    Image image;
    std::string wkt;
    host.run("render", pointCount(*cloud.grid), [&] {
      const auto summary = Raster::summarizeRaster(*cloud.grid, heightField_);
      const auto heights =
          summary ? Raster::heightsOf(*cloud.grid, heightField_, input_) : HeightGrid();
      try {
        image = summary ? renderRaster(heights, box_) : renderCloud(*cloud.grid, box_);
      } catch (const std::runtime_error& e) {
        throw Error(input_ + ": " + e.what());
      }
      wkt = summary ? summary->coordinateSystem : Raster::coordinateSystemOf(*cloud.grid);
    });
    Raster::writePicture(output_, image, wkt);
    return 0;
  }

private:
  std::string fieldName() const {
    if (box_.by == "intensity")
      return "Intensity";
    return box_.by == "height" ? "CanopyHeight" : box_.by == "z" ? "" : box_.by;
  }

  RenderParameterBox box_;
  std::string input_, output_, palette_;
  std::string heightField_ = Quorvel::Raster::DefaultHeightField;
  const CLI::Option* palettePrint_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeRender() {
  return std::make_unique<Render>();
}

} // namespace Quorvel::Cli
