// SPDX-License-Identifier: BSD-3-Clause
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
    using Box = PlanarRegressionParameterBox;
    addField(app, box_, &Box::range);
    addField(app, box_, &Box::source);
    addField(app, box_, &Box::additional);
    addField(app, box_, &Box::working_range);
    addField(app, box_, &Box::radius);
    addField(app, box_, &Box::target);
    addField(app, box_, &Box::maximum_iteration);
    addField(app, box_, &Box::reset);
    addField(app, box_, &Box::quantile);
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
