// SPDX-License-Identifier: BSD-3-Clause
// quorvel cellsize: the voxel-density cell size of every point ("CellTensor").
#include "cli/commands/command.hpp"
#include "quorvel/metadata/metadata.hpp"

namespace Quorvel::Cli {

namespace {

class CellSize final : public CloudCommand {
public:
  CellSize() : CloudCommand("cellsize") {}

  void addStageOptions(CLI::App&) override {}

  void apply(Cloud& cloud, const Host& host) override {
    std::string report;
    host.run("cellsize", pointCount(*cloud.grid), [&] { report = setCellSize(cloud.grid, {}); });
    host.note(report);
  }
};

} // namespace

std::unique_ptr<Command> makeCellSize() {
  return std::make_unique<CellSize>();
}

} // namespace Quorvel::Cli
