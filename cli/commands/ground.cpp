// SPDX-License-Identifier: BSD-3-Clause
// quorvel ground: finds the ground points of an unclassified cloud (class 2), and calls the other
// points of classes 0 and 1 unassigned (class 1).
#include "cli/commands/command.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <cstdio>

namespace Quorvel::Cli {

namespace {

const char* const Footer =
    R"(smrf, the simple morphological filter (Pingel, Clarke and McBride 2013): the lowest point
of every --cell cell makes a surface; openings with windows of radius 1 cell up to --window drop
the cells that stand out by more than --slope times the radius (buildings, trees); a point is
ground when it lies within --threshold + --scalar * (local slope) of that surface, filled where
cells were dropped. Classes 7 and 18 (noise) take no part and keep their class. Without --reset
only points of classes 0, 1 and 2 change; other classes (buildings, vegetation, water) are kept.
The defaults suit airborne data in metres; for data in feet, give --cell 3 --window 60
--threshold 1.5. From an unclassified LAZ to heights above ground:
  quorvel ground in.laz -o ground.laz
  quorvel dtm ground.laz -o dtm.h5 --cell 1
  quorvel map ground.laz dtm.h5 -o heights.laz --height)";

class Ground final : public CloudCommand {
public:
  Ground() : CloudCommand("ground") {}

  void addStageOptions(CLI::App& app) override {
    using Box = GroundFilterParameterBox;
    addField(app, box_, &Box::method);
    addField(app, box_, &Box::cell_size);
    addField(app, box_, &Box::slope);
    addField(app, box_, &Box::window);
    addField(app, box_, &Box::threshold);
    addField(app, box_, &Box::scalar);
    addField(app, box_, &Box::ignore);
    addField(app, box_, &Box::reset);
    app.footer(Footer);
  }

  // Positions and classes are all it reads, classes all it changes.
  bool changesOnlyClasses() const override { return true; }

  void apply(Cloud& cloud, const Host& host) override {
    std::size_t ground = 0;
    host.run("ground", pointCount(*cloud.grid), [&] { ground = groundFilter(cloud.grid, box_); });
    // A stage of a pipeline has no input of its own; alone, the message names the file.
    const std::string where = input().empty() ? "" : input() + ": ";
    if (!box_.message.empty())
      throw Error("ground: " + where + box_.message);
    if (ground == 0)
      std::fprintf(stderr, "quorvel ground: warning: %sno point was found to be ground\n",
                   where.c_str());
  }

private:
  GroundFilterParameterBox box_;
};

} // namespace

std::unique_ptr<Command> makeGround() {
  return std::make_unique<Ground>();
}

} // namespace Quorvel::Cli
