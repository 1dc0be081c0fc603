// SPDX-License-Identifier: BSD-3-Clause
// quorvel shapefactors: every point's planarity and, on request, linearity, sphericity and
// normal vector, at the most planar of several neighbourhood scales.
#include "cli/commands/command.hpp"
#include "quorvel/features/features.hpp"

namespace Quorvel::Cli {

void addShapeFactorOptions(CLI::App& app, ShapeFactorComputationParameterBox& box) {
  using Box = ShapeFactorComputationParameterBox;
  addField(app, box, &Box::step);
  addField(app, box, &Box::maxstep);
  addDimension(app, box.dimension, "3: neighbours within a sphere; 2: within a vertical cylinder");
  addField(app, box, &Box::normalvector);
  addField(app, box, &Box::linearity);
  addField(app, box, &Box::sphericity);
  addField(app, box, &Box::use_only_firstreturns);
  addField(app, box, &Box::use_only_singlereturns);
  addField(app, box, &Box::use_only_lastreturns);
  addField(app, box, &Box::intensity_threshold);
  addField(app, box, &Box::chartname);
  app.footer("Writes \"Planarity\" (0 to 1; 0 where a point has no neighbours beyond "
             "near-duplicates, and for points the filters leave out; -1 with --maxstep 0) and "
             "the fields asked for, at the most planar scale of each point. "
             "With --verbose the boxes and filter steps are shown as well.");
}

void computeShapeFactors(Cloud& cloud, const Host& host, ShapeFactorComputationParameterBox& box) {
  box.message.clear();
  box.verbose = box.verbose || host.common().verbose;
  host.run("shapefactors", pointCount(*cloud.grid),
           [&] { shapeFactorComputation(cloud.grid, box, nullptr); });
  if (!box.message.empty())
    throw Error("shapefactors: " + box.message);
}

namespace {

class ShapeFactors final : public CloudCommand {
public:
  ShapeFactors() : CloudCommand("shapefactors") {}

  void addStageOptions(CLI::App& app) override { addShapeFactorOptions(app, box_); }
  void apply(Cloud& cloud, const Host& host) override { computeShapeFactors(cloud, host, box_); }

private:
  ShapeFactorComputationParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeShapeFactors() {
  return std::make_unique<ShapeFactors>();
}

} // namespace Quorvel::Cli
