// SPDX-License-Identifier: BSD-3-Clause
// quorvel convert: LAS, LAZ, bundle (.h5), text (.csv, .xyz, .txt) and PLY into one another,
// chosen by the file extensions; "-" is LAS through standard input or output.
#include "cli/commands/command.hpp"

#include "io/text.hpp"

namespace Quorvel::Cli {

namespace {

class Convert final : public Command {
public:
  void addOptions(CLI::App& app) override {
    app.add_option("IN", in_,
                   "a LAS, LAZ, bundle, text (.csv, .xyz, .txt) or PLY file; - reads LAS from "
                   "standard input")
        ->required();
    app.add_option("OUT", out_,
                   "the file to write: .h5 or .hdf5 for a bundle, .las for LAS, .laz for LAZ, "
                   ".copc.laz for COPC, .csv (header line, commas), .xyz or .txt (blanks), .ply "
                   "(binary little-endian); - writes LAS to standard output")
        ->required()
        ->check(outputFile());
    app.add_option("--fields", fields_,
                   "the columns of a text or PLY output, e.g. x,y,z,classification (default: "
                   "x, y, z and every field of single numbers); the columns of a headerless text "
                   "input (default x,y,z)")
        ->delimiter(',');
    addWriteOptions(app, write_);
  }

  int run(const Host& host) override {
    checkOutput(out_);
    // A headerless text names its columns by --fields; otherwise --fields picks the output's.
    const bool headerless = Text::isText(in_) && !Text::isCsv(in_);
    const bool textOut = Text::isText(out_) || Text::isPly(out_);
    if (!fields_.empty() && !headerless && !textOut)
      throw CLI::ValidationError("--fields",
                                 "names the columns of a text input without header (.xyz, .txt) "
                                 "or of a text or PLY output");
    Cloud cloud;
    if (headerless)
      host.run("read " + in_, 0, [&] { cloud.grid = Text::read(in_, fields_); });
    else
      cloud = host.load(in_);
    const std::vector<std::string> columns = headerless ? std::vector<std::string>{} : fields_;
    if (textOut)
      host.run("write " + out_, pointCount(*cloud.grid),
               [&] { Text::write(out_, *cloud.grid, columns); });
    else
      host.save(out_, cloud, write_);
    host.summary("convert", *cloud.grid);
    return 0;
  }

private:
  std::string in_, out_;
  std::vector<std::string> fields_;
  Las::WriteOptions write_;
};

} // namespace

std::unique_ptr<Command> makeConvert() {
  return std::make_unique<Convert>();
}

} // namespace Quorvel::Cli
