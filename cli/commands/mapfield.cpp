// SPDX-License-Identifier: BSD-3-Clause
// quorvel mapfield: a field of a SOURCE grid carried onto the cells of a TARGET raster, each
// taking the value of the nearest source point in x-y within a radius.
#include "cli/commands/command.hpp"
#include "quorvel/raster/raster.hpp"

namespace Quorvel::Cli {

namespace {

class MapField final : public CloudCommand {
public:
  MapField() : CloudCommand("mapfield") {}

  void addStageOptions(CLI::App& app) override {
    source_ = app.add_option("SOURCE,--source", sourcePath_, "the grid whose field is carried")
                  ->required();
    app.add_option("--source-field", sourceField_, "the source's field (any scalar type)")
        ->required();
    app.add_option("--target-field", targetField_, "the target's new field (float)")->required();
    app.add_option("--radius", radius_, "largest x-y distance to a source point, in metres")
        ->required()
        ->check(boxRule("mapSourceToTarget", "radius"));
    app.footer("The target's positions must be three-dimensional arrays (a raster, such as one of "
               "quorvel raster import or quorvel dtm); a cell without a source point within the "
               "radius gets NaN.");
  }

  std::vector<const CLI::Option*> inputFiles() const override { return {source_}; }

  void apply(Cloud& target, const Host& host) override {
    const Cloud source = host.load(sourcePath_, {sourceField_});
    std::string message;
    host.run("mapfield", pointCount(*source.grid), [&] {
      message = mapSourceToTarget(*source.grid, sourceField_, *target.grid, targetField_, radius_);
    });
    if (!message.empty())
      throw Error("mapfield: " + message);
    target.rasterField = targetField_;
  }

protected:
  std::string inputName() const override { return "TARGET"; }
  bool writesRasters() const override { return true; }

private:
  std::string sourcePath_, sourceField_, targetField_;
  double radius_ = 1.0;
  const CLI::Option* source_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeMapField() {
  return std::make_unique<MapField>();
}

} // namespace Quorvel::Cli
