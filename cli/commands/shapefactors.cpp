// quorvel shapefactors: every point's planarity and, on request, linearity, sphericity and
// normal vector, at the most planar of several neighbourhood scales.
#include "cli/commands/command.hpp"
#include "quorvel/features/features.hpp"

namespace Quorvel::Cli {

void addShapeFactorOptions(CLI::App& app, ShapeFactorComputationParameterBox& box) {
  app.add_option("--step", box.step,
                 "scale increment in square metres (the cloud's units squared): scale k takes "
                 "the neighbours within sqrt(k*S) metres")
      ->capture_default_str()
      ->check(boxRule("ShapeFactorComputationParameterBox", "step"));
  app.add_option("--maxstep", box.maxstep,
                 "number of scales (0 to 1000); the widest reaches sqrt(N*S) metres")
      ->capture_default_str()
      ->check(boxRule("ShapeFactorComputationParameterBox", "maxstep"));
  addDimension(app, box.dimension, "3: neighbours within a sphere; 2: within a vertical cylinder");
  app.add_flag("--normals", box.normalvector,
               "also write \"NormalVector\" (unit vectors, pointing up)");
  app.add_flag("--linearity", box.linearity, "also write \"Linearity\" (0 to 1)");
  app.add_flag("--sphericity", box.sphericity, "also write \"Sphericity\" (0 to 1)");
  app.add_flag("--first-returns", box.use_only_firstreturns, "only first returns take part");
  app.add_flag("--single-returns", box.use_only_singlereturns, "only single returns take part");
  app.add_flag("--last-returns", box.use_only_lastreturns, "only last returns take part");
  app.add_option("--intensity-threshold", box.intensity_threshold,
                 "points of lower \"Amplitude\" (else \"Intensity\") take no part, in the "
                 "file's intensity units (0 to 65535; 0: all take part)")
      ->capture_default_str()
      ->check(boxRule("ShapeFactorComputationParameterBox", "intensity_threshold"));
  app.add_option("--chart", box.chartname, "chart of the positions and fields")
      ->capture_default_str();
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
