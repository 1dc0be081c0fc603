// SPDX-License-Identifier: BSD-3-Clause
// quorvel dsm, chm and density: surfaces made from a cloud, laid out as quorvel dtm lays out its
// ground rasters (pixel edges at multiples of --cell, covering every point).
#include "cli/commands/command.hpp"
#include "io/raster.hpp"
#include "quorvel/raster/raster.hpp"

namespace Quorvel::Cli {

namespace {

const char* const Layout =
    R"(Cells of --cell metres have their edges at multiples of it and cover every point (so that
quorvel map reaches every point of the cloud), with the coordinate system of the LAS file
(horizontal and vertical). Cells without a value have no data ("CellType" 1, -9999 in a GeoTIFF).)";

// What the three surfaces share: the input, the output and the options of their box.
class Surface : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", input_, "the cloud (LAS, LAZ or bundle)")->required();
    app.add_option("-o,--output", output_, "the raster (.h5 bundle or .tif GeoTIFF)")
        ->required()
        ->check(rasterOutputFile());
    using Box = SurfaceParameterBox;
    addField(app, box_, &Box::cell_size, Default::Hidden)->required();
    addField(app, box_, &Box::classes);
    addField(app, box_, &Box::first_returns);
    addField(app, box_, &Box::fragment_cells);
    addField(app, box_, &Box::height_field);
    addSurfaceOptions(app);
  }

  int run(const Host& host) override {
    checkOutput(output_);
    // The raster takes the cloud's coordinate system, which GDAL reads, as it writes GeoTIFF.
    const Raster::OpenedAhead modules(mayHaveCoordinateSystem(input_) || Files::isGeoTiff(output_),
                                      Files::isBundle(input_) || Files::isBundle(output_));
    prepare(host);
    // The surfaces need positions, classes and return numbers alone.
    const Cloud cloud = host.load(input_, {"Classification", "ReturnNumber"});
    Cloud raster;
    host.run(name(), pointCount(*cloud.grid), [&] {
      aboutFile(input_, [&] {
        // The coordinate system waits for GDAL, which opens while the raster is made.
        raster.grid = make(*cloud.grid, {});
        setRasterCoordinateSystem(*raster.grid,
                                  Raster::coordinateSystemOf(*cloud.grid, readWarnings(input_)));
      });
    });
    raster.rasterField = box_.height_field;
    host.save(output_, raster);
    return 0;
  }

protected:
  virtual const char* name() const = 0;
  virtual void addSurfaceOptions(CLI::App& app) = 0;
  virtual void prepare(const Host&) {}
  virtual Basalt::StrongPtr<Tressel::Grid> make(const Tressel::Grid& cloud,
                                                const std::string& coordinateSystem) = 0;
  void addFillRings(CLI::App& app) { addField(app, box_, &SurfaceParameterBox::fill_rings); }

  SurfaceParameterBox box_;

private:
  std::string input_, output_;
};

class Dsm final : public Surface {
  const char* name() const override { return "dsm"; }
  void addSurfaceOptions(CLI::App& app) override {
    addFillRings(app);
    app.footer(
        std::string(
            R"(Every cell takes the highest z of the points in it ("CellType" 0); with --fill-rings N
an empty cell takes the mean of the cells with points in the nearest ring around it that holds
any, weighted by the inverse squared distance, up to N rings away ("CellType" 4).
)") + Layout);
  }
  Basalt::StrongPtr<Tressel::Grid> make(const Tressel::Grid& cloud,
                                        const std::string& cs) override {
    return surfaceRaster(cloud, box_, cs);
  }
};

class Density final : public Surface {
public:
  Density() { box_.height_field = "Density"; }

private:
  const char* name() const override { return "density"; }
  void addSurfaceOptions(CLI::App& app) override {
    app.footer(
        std::string(
            R"(Every cell takes the number of points in it per square unit (points / cell^2), 0 where
it has none; --first-returns counts pulses rather than returns.
)") + Layout);
  }
  Basalt::StrongPtr<Tressel::Grid> make(const Tressel::Grid& cloud,
                                        const std::string& cs) override {
    return densityRaster(cloud, box_, cs);
  }
};

class Chm final : public Surface {
  const char* name() const override { return "chm"; }
  void addSurfaceOptions(CLI::App& app) override {
    app.add_option("--dtm", dtm_, "the ground raster (quorvel dtm, or any GDAL raster)")
        ->required()
        ->check(CLI::ExistingFile);
    addField(app, box_, &SurfaceParameterBox::ground_field);
    addFillRings(app);
    addField(app, box_, &SurfaceParameterBox::pit_depth);
    app.footer(
        std::string(
            R"(Every cell takes the highest z of the points in it less the ground height of the --dtm
cell under its centre, negative heights as 0; cells without points (after --fill-rings) or
without ground have no data. --pit-depth D removes the pits between crowns: a cell more than D
below the median of its neighbours takes that median. A canopy height model in two commands:
  quorvel dtm in.las -o dtm.tif --cell 1
  quorvel chm in.las --dtm dtm.tif -o chm.tif --cell 1 --pit-depth 2
)") + Layout);
  }
  void prepare(const Host& host) override { ground_ = host.load(dtm_).grid; }
  Basalt::StrongPtr<Tressel::Grid> make(const Tressel::Grid& cloud,
                                        const std::string& cs) override {
    return canopyRaster(cloud, *ground_, box_, cs);
  }

  std::string dtm_;
  Basalt::StrongPtr<Tressel::Grid> ground_;
};

} // namespace

std::unique_ptr<Command> makeDsm() {
  return std::make_unique<Dsm>();
}

std::unique_ptr<Command> makeChm() {
  return std::make_unique<Chm>();
}

std::unique_ptr<Command> makeDensity() {
  return std::make_unique<Density>();
}

} // namespace Quorvel::Cli
