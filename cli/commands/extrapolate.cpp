// SPDX-License-Identifier: BSD-3-Clause
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
    using Box = ExtrapolationParameterBox;
    addField(app, box_, &Box::mode);
    addField(app, box_, &Box::extrapolation_class);
    addField(app, box_, &Box::source);
    addField(app, box_, &Box::target);
    addField(app, box_, &Box::radius);
    addField(app, box_, &Box::maximum_iteration);
    addDimension(app, box_.dimension, "2: seeds in x, y; 3: in x, y, z");
    addField(app, box_, &Box::range);
    addField(app, box_, &Box::quantile);
    addField(app, box_, &Box::threshold);
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
