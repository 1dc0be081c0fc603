// SPDX-License-Identifier: BSD-3-Clause
// quorvel map: a ground raster onto a cloud, as height-band classes or as heights above ground;
// or onto every grid of a list of bundle files, each rewritten in place.
#include "cli/commands/command.hpp"
#include "cli/commands/raster_input.hpp"
#include "io/raster.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/raster/raster.hpp"

#include "basalt/text.hpp"
#include "tressel/bounding_boxes.hpp"

namespace Quorvel::Cli {

namespace {

const char* const Footer = R"(Forms:
  quorvel map CLOUD RASTER -o OUT [options]      one cloud (LAS, LAZ or bundle)
  quorvel map --files A.h5 B.h5 ... --raster R   every grid of every bundle file, rewritten in
                                                 place with positions in single precision
                                                 (numerically shifted); a file that fails stays
                                                 as it was
The cell size and the fragment size come from the raster itself. A point takes the cell under it
(cells are centred on the raster's vertices). --bands assign classes by the height above the
cell's ground, either test accepting: the distance from the plane of the cell's 3 x 3 block
(within the block's lowest and highest ground) or the height above the cell; --step uses only the
latter. --height writes "CanopyHeight" (distance from the cell's plane; -1000 where the cell has
no plane, NaN outside the raster) and changes no class.)";

class Map final : public CloudCommand {
public:
  Map() : CloudCommand("map") {}

  void addStageOptions(CLI::App& app) override {
    raster_ = app.add_option("--raster", rasterPath_, "the prepared or unprepared ground raster");
    app.add_option_function<std::string>(
        "--bands",
        [this](const std::string& text) { box_.assignment = heightBands("--bands", text); },
        "height bands in metres above the ground and their classes, low:high=class;... (e.g. "
        "0.2:2=3;2:5=4)");
    app.add_option_function<std::string>(
        "--class-bands",
        [this](const std::string& text) {
          box_.class_assignment = classConditionalBands("--class-bands", text);
        },
        "bands in metres for points of some classes only, low:high=from:to=class;... (the classes "
        "from..to are then the only ones mapped)");
    using Box = MapRasterOnPointCloudParameterBox;
    addField(app, box_, &Box::height);
    addField(app, box_, &Box::step);
    addField(app, box_, &Box::unclassify);
    addField(app, box_, &Box::constantclasses);
    addField(app, box_, &Box::heightfieldname);
  }

  void addOperandsAfterInput(CLI::App& app) override {
    app.add_option("RASTER", rasterPath_, "the ground raster (bundle, or any GDAL raster)");
    app.add_option("--files", files_, "bundle files to map in place (the second form)")
        ->excludes(app.get_option("CLOUD"));
    app.footer(Footer);
  }

  std::vector<const CLI::Option*> inputFiles() const override { return {raster_}; }

  void apply(Cloud& cloud, const Host& host) override {
    if (rasterPath_.empty())
      throw CLI::RequiredError("RASTER");
    auto raster = loadRaster(rasterPath_, host, box_, &cloud);
    checkOverlap(*raster, *cloud.grid);
    bool ok = false;
    host.run("map", pointCount(*cloud.grid), [&] { ok = mapData(cloud.grid, raster, box_); });
    if (!ok)
      throw Error("map: the raster could not be mapped onto " + input());
  }

protected:
  // A raster beside the cloud would map nothing; said plainly instead of failing inside the run.
  // The raster's box is that of its cells, half a cell beyond its outer centres.
  void checkOverlap(const Tressel::Grid& raster, const Tressel::Grid& cloud) const {
    const auto centres = boxOf(raster);
    const auto cloudBox = boxOf(cloud);
    if (!centres || !cloudBox)
      return;
    const double hx = std::max(box_.cellsize[0], 0.0) / 2, hy = std::max(box_.cellsize[1], 0.0) / 2;
    const Vantor::BoundingBox rasterBox(
        Vantor::PhysicalSpace::point(centres->min().x - hx, centres->min().y - hy, 0),
        Vantor::PhysicalSpace::point(centres->max().x + hx, centres->max().y + hy, 0));
    if (rasterBox.max().x < cloudBox->min().x || cloudBox->max().x < rasterBox.min().x ||
        rasterBox.max().y < cloudBox->min().y || cloudBox->max().y < rasterBox.min().y)
      throw Error(Basalt::format("map: the raster %s (x %.3f to %.3f, y %.3f to %.3f) does not "
                                 "meet the cloud %s (x %.3f to %.3f, y %.3f to %.3f): no point "
                                 "lies over it",
                                 rasterPath_.c_str(), rasterBox.min().x, rasterBox.max().x,
                                 rasterBox.min().y, rasterBox.max().y, input().c_str(),
                                 cloudBox->min().x, cloudBox->max().x, cloudBox->min().y,
                                 cloudBox->max().y));
  }

  static Basalt::StrongPtr<Vantor::BoundingBox> boxOf(const Tressel::Grid& grid) {
    const auto positions = grid.CartesianPositions();
    return positions ? Tressel::getBoundingBox(*positions) : nullptr;
  }

  std::string inputName() const override { return "CLOUD"; }
  bool hasFilesForm() const override { return true; }

  int runFiles(const Host& host) override {
    if (files_.empty())
      throw CLI::RequiredError("CLOUD or --files");
    if (rasterPath_.empty())
      throw CLI::RequiredError("--raster");
    if (Raster::isRasterFile(rasterPath_))
      throw CLI::ValidationError("--raster", "the file-list form takes a raster bundle (.h5); "
                                             "make one with quorvel raster import");
    takeRasterLayout(rasterPath_, box_);
    // This form reports each file's failure only in the library's lines: they are its result.
    if (!host.common().quiet)
      showLibraryLines();
    bool ok = false;
    host.run("map", files_.size(), [&] { ok = mapData(files_, rasterPath_, box_); });
    if (!ok)
      throw Error(
          "map: not every file could be mapped (see the mapRasterOnPointCloud lines above)");
    return 0;
  }

private:
  MapRasterOnPointCloudParameterBox box_;
  std::string rasterPath_;
  std::vector<std::string> files_;
  const CLI::Option* raster_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeMap() {
  return std::make_unique<Map>();
}

} // namespace Quorvel::Cli
