// SPDX-License-Identifier: BSD-3-Clause
// quorvel reproject: the positions carried into another coordinate system through GDAL's OSR and
// PROJ, with a LAS scale and offset that keep their precision and the new system's records.
#include "cli/commands/command.hpp"
#include "io/raster.hpp"
#include "quorvel/filters/filters.hpp"

namespace Quorvel::Cli {

namespace {

constexpr const char* Footer =
    "x and y always, z where the vertical systems differ and PROJ has the grid. The output's x-y "
    "scale is the largest power of ten not above a tenth of one input step carried through the "
    "transform at the cloud's centre (0.01 m becomes 1e-09 degrees), z's likewise, so rounding "
    "adds at most a twentieth of an input step; offsets are the floor of the smallest "
    "coordinates. LAS 1.4 files get a WKT record, earlier ones GeoTIFF keys (by EPSG "
    "code). --scale and --offset still decide where given. Without --exact, PROJ transforms a "
    "4 x 4 grid of points in each cell over the cloud's extent, at two heights, and the points "
    "in between take cubic interpolants of them (linear in height); a cell is split until 21 "
    "more points transformed exactly agree with its interpolants within a hundredth of the "
    "output's scale, or its points go through PROJ one by one.";

class Reproject final : public CloudCommand {
public:
  Reproject() : CloudCommand("reproject") {}

  void addStageOptions(CLI::App& app) override {
    using Box = ReprojectionParameterBox;
    addField(app, box_, &Box::target, Default::Hidden)->required();
    addField(app, box_, &Box::source, Default::Hidden);
    addField(app, box_, &Box::exact);
    threads_ = addThreads(app, box_.threads);
    app.footer(Footer);
  }

  bool opensGdal() const override { return true; }

  void apply(Cloud& cloud, const Host& host) override {
    applyCommonThreads(threads_, host, box_.threads);
    auto info = Las::fileInfo(*cloud.grid);
    const std::string from =
        box_.source.empty() ? Raster::coordinateSystemOf(*cloud.grid) : box_.source;
    const std::string name = input().empty() ? std::string("the cloud") : input();
    if (from.empty())
      throw Error("reproject: " + name + " has no coordinate system: give --from");
    const auto transformation = [&] {
      try {
        return Raster::transformation(from, box_.target);
      } catch (const Las::Error& e) {
        throw Error("reproject: " + name + ": " + e.what());
      }
    }();
    box_.inputScale = info ? info->header.scale : std::array<double, 3>{0.001, 0.001, 0.001};
    box_.message.clear();
    bool done = false;
    host.run("reproject", pointCount(*cloud.grid),
             [&] { done = reproject(cloud.grid, box_, transformation.factory); });
    if (!done)
      throw Error("reproject: " + box_.message);
    Las::FileInfo out = info ? *info : Las::FileInfo{};
    out.header.scale = box_.scale;
    out.header.offset = box_.offset;
    Raster::setCoordinateSystem(out, transformation.target);
    Las::setFileInfo(*cloud.grid, out);
  }

private:
  ReprojectionParameterBox box_;
  CLI::Option* threads_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeReproject() {
  return std::make_unique<Reproject>();
}

} // namespace Quorvel::Cli
