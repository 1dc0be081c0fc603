// SPDX-License-Identifier: BSD-3-Clause
// quorvel weights: how much every point matters when the cloud is thinned ("Weights"), from the
// "Planarity" and "NormalVector" that `quorvel shapefactors --normals` writes.
#include "cli/commands/command.hpp"
#include "quorvel/features/features.hpp"

namespace Quorvel::Cli {

void addWeightOptions(CLI::App& app, PointCloudReductionParameterBox& box) {
  addField(app, box, &PointCloudReductionParameterBox::radius);
  addField(app, box, &PointCloudReductionParameterBox::neighbours);
  app.footer("Writes \"Weights\" (float): how much a point matters when thinning, divided by the "
             "median weight so that a typical point weighs about 1. A point without a smooth "
             "surface around it (planarity below 0.001, or no neighbour) gets -1 divided by "
             "that median: a negative weight such as -0.2358 marks an unweighted point.");
}

void computeWeights(Cloud& cloud, const Host& host, PointCloudReductionParameterBox& box) {
  box.message.clear();
  host.run("weights", pointCount(*cloud.grid),
           [&] { computePointCloudReductionWeights(cloud.grid, box); });
  if (!box.message.empty())
    throw Error("weights: " + box.message);
}

namespace {

class Weights final : public CloudCommand {
public:
  Weights() : CloudCommand("weights") {}

  void addStageOptions(CLI::App& app) override { addWeightOptions(app, box_); }
  void apply(Cloud& cloud, const Host& host) override { computeWeights(cloud, host, box_); }

private:
  PointCloudReductionParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeWeights() {
  return std::make_unique<Weights>();
}

} // namespace Quorvel::Cli
