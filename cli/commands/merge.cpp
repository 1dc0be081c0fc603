// SPDX-License-Identifier: BSD-3-Clause
// quorvel merge: LAS and LAZ files of any size joined into one.
#include "cli/commands/command.hpp"
#include "cli/commands/streams.hpp"

namespace Quorvel::Cli {

namespace {

class Merge final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", inputs_, "LAS or LAZ files")->required();
    app.add_option("-o,--output", output_,
                   "the file to write: .las, .laz, or .copc.laz for COPC; it takes the header, "
                   "scale, offset and coordinate system of the first input")
        ->required()
        ->check(outputFile());
  }

  int run(const Host& host) override {
    if (!Files::isCloudFile(output_) || Files::isBundle(output_))
      throw Error(output_ + ": merge writes LAS (.las), LAZ (.laz) or COPC (.copc.laz)");
    checkOutput(output_);
    const std::uint64_t points = Las::merge(inputs_, output_, streamSettings(host.common()));
    host.summary("merge", points, std::to_string(inputs_.size()) + " files");
    return 0;
  }

private:
  std::vector<std::string> inputs_;
  std::string output_;
};

} // namespace

std::unique_ptr<Command> makeMerge() {
  return std::make_unique<Merge>();
}

} // namespace Quorvel::Cli
