// SPDX-License-Identifier: BSD-3-Clause
// quorvel tile: LAS and LAZ files of any size cut into square tiles, with buffers.
#include "cli/commands/command.hpp"
#include "cli/commands/streams.hpp"

namespace Quorvel::Cli {

namespace {

class TileCommand final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", inputs_, "LAS or LAZ files")->required();
    app.add_option("-o,--output", folder_,
                   "the folder of the tiles (made when missing), named X_Y.EXT by their "
                   "lower-left corners")
        ->required();
    app.add_option("--size", options_.size, "the side of the square tiles, in the files' units")
        ->required()
        ->check(CLI::PositiveNumber);
    app.add_option("--origin", options_.origin, "X,Y: a corner of the tiles' grid")
        ->delimiter(',')
        ->capture_default_str();
    app.add_option("--buffer", options_.buffer,
                   "tiles also hold the points within B of their square (in x and in y), marked "
                   "by the extra-bytes field \"Buffer\" (1; 0 for a tile's own points)")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--format", options_.format, "las, laz or copc (default: the first input's)")
        ->check(CLI::IsMember({"las", "laz", "copc"}));
  }

  int run(const Host& host) override {
    const Las::TileResult result =
        Las::tile(inputs_, folder_, options_, streamSettings(host.common()));
    for (const std::string& file : result.files)
      std::printf("%s\n", file.c_str());
    host.summary("tile", result.points, std::to_string(result.files.size()) + " tiles");
    return 0;
  }

private:
  std::vector<std::string> inputs_;
  std::string folder_;
  Las::TileOptions options_;
};

} // namespace

std::unique_ptr<Command> makeTile() {
  return std::make_unique<TileCommand>();
}

} // namespace Quorvel::Cli
