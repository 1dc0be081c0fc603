// quorvel shapefactors: every point's planarity and, on request, linearity, sphericity and
// normal vector, at the most planar of several neighbourhood scales.
#include "cli/commands/command.hpp"
#include "quorvel/features/features.hpp"

namespace Quorvel::Cli {

void addShapeFactorOptions(CLI::App& app, ShapeFactorComputationParameterBox& box) {
  app.add_option("--step", box.step, "scale increment; scale k takes squared distances up to k*S")
      ->capture_default_str()
      ->check(positiveNumber());
  app.add_option("--maxstep", box.maxstep, "number of scales; the search reaches N*S")
      ->capture_default_str()
      ->check(CLI::Range(0u, 1000u));
  app.add_option("--dimension", box.dimension, "3: neighbours in x, y, z; 2: in x, y")
      ->capture_default_str()
      ->check(CLI::IsMember({2, 3}));
  app.add_flag("--normals", box.normalvector, "also write \"NormalVector\"");
  app.add_flag("--linearity", box.linearity, "also write \"Linearity\"");
  app.add_flag("--sphericity", box.sphericity, "also write \"Sphericity\"");
  app.add_flag("--first-returns", box.use_only_firstreturns, "only first returns take part");
  app.add_flag("--single-returns", box.use_only_singlereturns, "only single returns take part");
  app.add_flag("--last-returns", box.use_only_lastreturns, "only last returns take part");
  app.add_option("--intensity-threshold", box.intensity_threshold,
                 "points of lower \"Amplitude\" (else \"Intensity\") take no part; 0: all")
      ->capture_default_str()
      ->check(numberWithin(0, 65535));
  app.add_option("--chart", box.chartname, "chart of the positions and fields")
      ->capture_default_str();
  app.add_flag("--verbose", box.verbose, "boxes and filter steps on standard output");
}

void computeShapeFactors(Cloud& cloud, const Host& host, ShapeFactorComputationParameterBox& box) {
  box.message.clear();
  host.run("shapefactors", pointCount(*cloud.grid),
           [&] { shapeFactorComputation(cloud.grid, box, host.progress("shapefactors")); });
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
