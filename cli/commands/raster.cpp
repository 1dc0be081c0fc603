// SPDX-License-Identifier: BSD-3-Clause
// quorvel raster: rasters in and out. import reads any raster GDAL reads (GeoTIFF, ASCII grid,
// ...) into a raster bundle the mapping commands prepare; export writes a raster bundle's
// height field as a GeoTIFF with its coordinate system.
#include "io/raster.hpp"
#include "cli/commands/command.hpp"

namespace Quorvel::Cli {

namespace {

const char* const Footer =
    R"(A raster bundle holds one cell per pixel, at the pixel's centre, in fragments of
--fragment-cells x --fragment-cells cells (the last of a row or column only the pixels left):
"CellType" 0 for a pixel with a height, 4 for a height filled in from the surrounding cells
(quorvel dtm), 1 for no data (the raster's nodata value or NaN), and the height
(float32) in --height-field. A GeoTIFF written back has the nodata value -9999 where a cell is
neither 0 nor 4. Rasters must be north-up (no rotation terms).)";

class RasterCommand final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.require_subcommand(1);
    app.footer(Footer);
    import_ = app.add_subcommand("import", "any GDAL raster into a raster bundle");
    import_->add_option("IN", input_, "the raster (GeoTIFF, ASCII grid, ...)")->required();
    import_->add_option("-o,--output", output_, "the raster bundle (.h5)")
        ->required()
        ->check(rasterOutputFile());
    import_->add_option("--fragment-cells", fragmentCells_, "cells of a fragment along x and y")
        ->capture_default_str()
        ->check(boxRule("GroundRasterParameterBox", "fragment_cells"));
    import_->add_option("--height-field", heightField_, "the field of the heights")
        ->capture_default_str();
    auto* out = app.add_subcommand("export", "a raster bundle's heights as a GeoTIFF");
    out->add_option("IN", input_, "the raster bundle")->required();
    out->add_option("-o,--output", output_, "the GeoTIFF (.tif)")
        ->required()
        ->check(rasterOutputFile());
    out->add_option("--height-field", heightField_, "the field written")->capture_default_str();
  }

  int run(const Host& host) override {
    checkOutput(output_);
    Cloud raster;
    host.run("read " + input_, 0, [&] {
      raster.grid = Raster::isRasterFile(input_)
                        ? Raster::import(input_, fragmentCells_, heightField_)
                        : Files::load(input_, 0, {}, {}, readWarnings(input_));
    });
    raster.rasterField = heightField_;
    host.save(output_, raster);
    return 0;
  }

private:
  CLI::App* import_ = nullptr;
  std::string input_, output_;
  std::size_t fragmentCells_ = 256;
  std::string heightField_ = Raster::DefaultHeightField;
};

} // namespace

std::unique_ptr<Command> makeRaster() {
  return std::make_unique<RasterCommand>();
}

} // namespace Quorvel::Cli
