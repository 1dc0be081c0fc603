// quorvel extrapolate: spreads a class from seed points into the unclassified points near them,
// in rounds, by one of four modes (ground along the terrain, flat surfaces, nearest classes, any
// seed near).
#include "cli/commands/command.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <limits>

namespace Quorvel::Cli {

namespace {

class Extrapolate final : public CloudCommand {
public:
  Extrapolate() : CloudCommand("extrapolate") {}

  void addStageOptions(CLI::App& app) override {
    app.add_option("--mode", box_.mode, "planarregression, threshold, classification, constant")
        ->capture_default_str()
        ->check(boxRule("ExtrapolationParameterBox", "mode"));
    app.add_option("--class", box_.extrapolation_class, "class given to grown points (0 to 255)")
        ->capture_default_str()
        ->check(boxRule("ExtrapolationParameterBox", "extrapolation_class"));
    addRange(app, "--source", box_.source, "classes of the seeds (class numbers, e.g. 2)");
    addRange(app, "--target", box_.target, "classes that may change (class numbers)");
    app.add_option("--radius", box_.radius, "search radius of every candidate, in metres")
        ->capture_default_str()
        ->check(boxRule("ExtrapolationParameterBox", "radius"));
    app.add_option("--maximum-iteration", box_.maximum_iteration, "largest number of rounds")
        ->capture_default_str()
        ->check(boxRule("ExtrapolationParameterBox", "maximum_iteration"));
    addDimension(app, box_.dimension, "2: seeds in x, y; 3: in x, y, z");
    addRange(app, "--range", box_.range,
             "planarregression: signed distances from the plane, in metres, that grow (negative: "
             "write --range=-0.2:0.2)");
    app.add_option("--quantile", box_.quantile,
                   "planarregression: percentage (0 to 100) of the lowest seeds left out")
        ->capture_default_str()
        ->check(boxRule("ExtrapolationParameterBox", "quantile"));
    app.add_option("--threshold", box_.threshold, "threshold: largest height difference, in metres")
        ->capture_default_str()
        ->check(boxRule("ExtrapolationParameterBox", "threshold"));
  }

  void apply(Cloud& cloud, const Host& host) override {
    warnWithoutSeeds("extrapolate", *cloud.grid, box_.source, "--source");
    box_.message.clear();
    host.run("extrapolate", pointCount(*cloud.grid),
             [&] { extrapolation(cloud.grid, box_, host.progress("extrapolate")); });
    if (!box_.message.empty())
      throw Error("extrapolate: " + box_.message);
  }

private:
  ExtrapolationParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeExtrapolate() {
  return std::make_unique<Extrapolate>();
}

} // namespace Quorvel::Cli
