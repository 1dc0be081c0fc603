// quorvel regress: reclassifies points by their distance from the plane through their neighbours,
// in rounds (planar regression; by default it grows the ground class from class 2 seeds).
#include "cli/commands/command.hpp"
#include "quorvel/terrain/terrain.hpp"

namespace Quorvel::Cli {

namespace {

class Regress final : public CloudCommand {
public:
  Regress() : CloudCommand("regress") {}

  void addStageOptions(CLI::App& app) override {
    addRange(app, "--range", box_.range,
             "signed distances from the plane, in metres, that reclassify a candidate (negative: "
             "write --range=-0.2:0.2)");
    addRange(app, "--source", box_.source,
             "classes of the points the planes are fitted to (the seeds), and of the candidates");
    addRange(app, "--additional", box_.additional,
             "further classes of the points the planes are fitted to");
    // The box's working range: without it the candidates are the --source classes.
    addRange(app, "--candidates", box_.working_range,
             "classes of the candidates, when not those of --source (growing: 0:1)");
    app.add_option("--radius", box_.radius, "starting search radius in metres")
        ->capture_default_str()
        ->check(boxRule("PlanarRegressionParameterBox", "radius"));
    app.add_option("--target", box_.target,
                   "class given to the points near the plane; negative: add 100 to their class")
        ->capture_default_str();
    app.add_option("--maximum-iteration", box_.maximum_iteration, "largest number of rounds")
        ->capture_default_str();
    app.add_option("--reset", box_.reset,
                   "0 or more: set every class to this first (-1: keep the classes)")
        ->capture_default_str();
    app.add_option("--quantile", box_.quantile,
                   "percentage (0 to 100) of the lowest neighbours left out of a plane")
        ->capture_default_str()
        ->check(boxRule("PlanarRegressionParameterBox", "quantile"));
    addDimension(app, box_.dimension, "2: neighbours in x, y; 3: in x, y, z");
  }

  void apply(Cloud& cloud, const Host& host) override {
    warnWithoutSeeds("regress", *cloud.grid, box_.source, "--source");
    std::string message;
    host.run("regress", pointCount(*cloud.grid),
             [&] { message = planarRegressionOfGrid(cloud.grid, box_, host.progress("regress")); });
    if (!message.empty())
      throw Error("regress: " + message);
  }

private:
  PlanarRegressionParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeRegress() {
  return std::make_unique<Regress>();
}

} // namespace Quorvel::Cli
