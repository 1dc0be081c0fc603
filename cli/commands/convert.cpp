// quorvel convert: LAS or LAZ <-> bundle (.h5), chosen by the file extensions.
#include "cli/commands/command.hpp"

namespace Quorvel::Cli {

namespace {

class Convert final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", in_, "a LAS, LAZ or bundle file")->required();
    app.add_option("OUT", out_,
                   "the file to write: .h5 or .hdf5 for a bundle, .las for LAS, .laz for LAZ, "
                   ".copc.laz for COPC")
        ->required()
        ->check(outputFile());
    addWriteOptions(app, write_);
  }

  int run(const Host& host) override {
    checkOutput(out_);
    const Cloud cloud = host.load(in_);
    host.save(out_, cloud, write_);
    host.summary("convert", *cloud.grid);
    return 0;
  }

private:
  std::string in_, out_;
  Las::WriteOptions write_;
};

} // namespace

std::unique_ptr<Command> makeConvert() {
  return std::make_unique<Convert>();
}

} // namespace Quorvel::Cli
