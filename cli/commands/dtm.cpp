// SPDX-License-Identifier: BSD-3-Clause
// quorvel dtm: a ground raster (digital terrain model) from the ground points of a cloud.
#include "cli/commands/command.hpp"
#include "io/raster.hpp"
#include "quorvel/raster/raster.hpp"

namespace Quorvel::Cli {

namespace {

const char* const Footer =
    R"(Cells of --cell metres have their edges at multiples of it and cover every point of the
cloud, with one column and one row past the highest points' cells so that quorvel map reaches
every point. --method lowest: a cell takes the lowest z of the ground points in it ("CellType"
0); tin: the height at its centre of a Delaunay triangulation of the ground points (qhull),
inside the triangulation; idw: the ground points of its 3 x 3 block of cells weighted by their
inverse squared distance from its centre. An empty cell takes the mean of the cells with points
in the nearest ring around it that holds any, weighted by the inverse squared distance, up to
--fill-rings rings away ("CellType" 4); farther cells have no data ("CellType" 1, -9999 in a
GeoTIFF). The LAS file's coordinate system (its WKT record or its GeoTIFF keys, horizontal and
vertical) goes into the raster; one GDAL cannot read is left out with a warning. Heights above
this ground:
  quorvel dtm in.las -o dtm.h5 --cell 1
  quorvel map in.las dtm.h5 -o out.las --height)";

void addGroundRasterOptions(CLI::App& app, GroundRasterParameterBox& box) {
  using Box = GroundRasterParameterBox;
  addField(app, box, &Box::cell_size, Default::Hidden)->required();
  addField(app, box, &Box::classes);
  addField(app, box, &Box::method);
  addField(app, box, &Box::fill_rings);
  addField(app, box, &Box::fragment_cells);
  addField(app, box, &Box::height_field);
}

// In a pipeline: the raster of the cloud as it stands, kept beside it under the name "output"
// gives; later stages take it by that name (map --raster), and it is written once the stages
// are done.
class DtmStage final : public CloudCommand {
public:
  DtmStage() : CloudCommand("dtm") {}

  void addStageOptions(CLI::App& app) override {
    app.add_option("--output", output_, "the raster (.h5 bundle or .tif GeoTIFF)")
        ->required()
        ->check(rasterOutputFile());
    addGroundRasterOptions(app, box_);
  }

  std::vector<std::string> outputFiles() const override { return {output_}; }

  void apply(Cloud& cloud, const Host& host) override {
    Cloud::Raster made{output_, nullptr, box_.height_field};
    host.run("dtm", pointCount(*cloud.grid), [&] {
      // The coordinate system waits for GDAL, which opens while the raster is made.
      made.grid = groundRaster(*cloud.grid, box_);
      setRasterCoordinateSystem(*made.grid, Raster::coordinateSystemOf(*cloud.grid));
    });
    std::erase_if(cloud.rasters, [&](const Cloud::Raster& r) { return r.name == output_; });
    cloud.rasters.push_back(std::move(made));
  }

private:
  std::string output_;
  GroundRasterParameterBox box_;
};

class Dtm final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", input_, "the classified cloud (LAS, LAZ or bundle)")->required();
    app.add_option("-o,--output", output_, "the raster (.h5 bundle or .tif GeoTIFF)")
        ->required()
        ->check(rasterOutputFile());
    addGroundRasterOptions(app, box_);
    app.footer(Footer);
  }

  std::unique_ptr<CloudCommand> stage() const override { return std::make_unique<DtmStage>(); }

  int run(const Host& host) override {
    checkOutput(output_);
    // The raster takes the cloud's coordinate system, which GDAL reads, as it writes GeoTIFF.
    const Raster::OpenedAhead modules(mayHaveCoordinateSystem(input_) || Files::isGeoTiff(output_),
                                      Files::isBundle(input_) || Files::isBundle(output_));
    // The ground raster needs the classes and positions alone.
    const Cloud cloud = host.load(input_, {"Classification"});
    Cloud raster;
    host.run("dtm", pointCount(*cloud.grid), [&] {
      aboutFile(input_, [&] {
        // The coordinate system waits for GDAL, which opens while the raster is made.
        raster.grid = groundRaster(*cloud.grid, box_);
        setRasterCoordinateSystem(*raster.grid,
                                  Raster::coordinateSystemOf(*cloud.grid, readWarnings(input_)));
      });
    });
    raster.rasterField = box_.height_field;
    host.save(output_, raster);
    return 0;
  }

private:
  std::string input_, output_;
  GroundRasterParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeDtm() {
  return std::make_unique<Dtm>();
}

} // namespace Quorvel::Cli
