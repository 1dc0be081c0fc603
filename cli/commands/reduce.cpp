// SPDX-License-Identifier: BSD-3-Clause
// quorvel reduce: thins a cloud to the points that matter most by their "Weights", computing
// shape factors and weights first when the cloud has none.
#include "cli/commands/command.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"

#include <limits>

namespace Quorvel::Cli {

namespace {

class Reduce final : public CloudCommand {
public:
  Reduce() : CloudCommand("reduce") {}

  void addStageOptions(CLI::App& app) override {
    using Box = PointCloudSizeReductionParameterBox;
    CLI::Option* keep = addField(app, box_, &Box::keep);
    addField(app, box_, &Box::threshold)->excludes(keep);
    app.add_flag("--drop-unweighted", dropUnweighted_,
                 "drop the points without a weight (rough places, edges, isolated points)");
    addShapeFactorOptions(app, shape_);
    addWeightOptions(app, weights_);
  }

  void apply(Cloud& cloud, const Host& host) override {
    box_.keep_unweighted = !dropUnweighted_;
    if (!findOptionalField(cloud.grid, "Weights")) {
      shape_.normalvector = true;
      computeShapeFactors(cloud, host, shape_);
      computeWeights(cloud, host, weights_);
    }
    box_.message.clear();
    const auto reduced = reducedPointCloud(cloud.grid, box_);
    if (!reduced)
      throw Error("reduce: " + box_.message);
    cloud.grid = reduced;
  }

private:
  PointCloudSizeReductionParameterBox box_;
  ShapeFactorComputationParameterBox shape_;
  PointCloudReductionParameterBox weights_;
  bool dropUnweighted_ = false;
};

} // namespace

std::unique_ptr<Command> makeReduce() {
  return std::make_unique<Reduce>();
}

} // namespace Quorvel::Cli
