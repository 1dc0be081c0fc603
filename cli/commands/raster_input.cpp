// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: loading and preparing ground rasters for the mapping commands.
#include "cli/commands/raster_input.hpp"

#include "quorvel/core/core.hpp"

#include <cmath>
#include <initializer_list>
#include <tuple>

namespace Quorvel::Cli {

namespace {

std::uint32_t bandClass(const std::string& option, const std::string& text, int cls) {
  if (cls < 0 || cls > 255)
    throw CLI::ValidationError(option, "class " + std::to_string(cls) + " in \"" + text +
                                           "\" is not a class from 0 to 255");
  return static_cast<std::uint32_t>(cls);
}

void checkFinite(const std::string& option, const std::string& text,
                 std::initializer_list<double> values) {
  for (double v : values)
    if (!std::isfinite(v))
      throw CLI::ValidationError(option, "\"" + text + "\" holds a number that is not finite");
}

} // namespace

std::vector<HeightBand> heightBands(const std::string& option, const std::string& text) {
  std::vector<std::pair<std::pair<double, double>, int>> table;
  if (!assignRangesToClasses(text, table))
    throw CLI::ValidationError(option, "takes low:high=class;..., not \"" + text + "\"");
  std::vector<HeightBand> out;
  for (const auto& [span, cls] : table) {
    checkFinite(option, text, {span.first, span.second});
    out.push_back({span.first, span.second, bandClass(option, text, cls)});
  }
  return out;
}

std::vector<ClassConditionalBand> classConditionalBands(const std::string& option,
                                                        const std::string& text) {
  std::vector<std::tuple<std::pair<double, double>, std::pair<double, double>, int>> table;
  if (!reclassificationAccordingToRange(text, table))
    throw CLI::ValidationError(option, "takes low:high=from:to=class;..., not \"" + text + "\"");
  std::vector<ClassConditionalBand> out;
  for (const auto& [span, classes, cls] : table) {
    checkFinite(option, text, {span.first, span.second, classes.first, classes.second});
    out.push_back(
        {bandClass(option, text, cls), span.first, span.second, classes.first, classes.second});
  }
  return out;
}

void takeRasterLayout(const Tressel::Grid& raster, const std::string& path,
                      MapRasterOnPointCloudParameterBox& box) {
  if (!Quorvel::takeRasterLayout(raster, box))
    throw Error(path + ": not a raster (its first grid is not a regularly fragmented uniform "
                       "grid)");
}

void takeRasterLayout(const std::string& path, MapRasterOnPointCloudParameterBox& box) {
  takeRasterLayout(*Files::load(path, 0, {}, {}, readWarnings(path)), path, box);
}

Basalt::StrongPtr<Tressel::Grid> loadRaster(const std::string& path, const Host& host,
                                            MapRasterOnPointCloudParameterBox& box,
                                            const Cloud* beside) {
  const Cloud::Raster* made = beside ? beside->raster(path) : nullptr;
  // Bundles, and any raster file through GDAL.
  auto raster = made ? made->grid : host.load(path).grid;
  takeRasterLayout(*raster, path, box);
  bool ok = false;
  host.run("prepare", 0, [&] { ok = prepareRaster(raster, box); });
  if (!ok)
    throw Error(path + ": the raster cannot be prepared (see the messages above)");
  return raster;
}

} // namespace Quorvel::Cli
