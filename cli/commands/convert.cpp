// SPDX-License-Identifier: BSD-3-Clause
// quorvel convert: LAS, LAZ, bundle (.h5), text (.csv, .xyz, .txt) and PLY into one another,
// chosen by the file extensions; "-" is LAS through standard input or output.
#include "cli/commands/command.hpp"

#include "cli/commands/streams.hpp"
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
    if (copiesRecords(host.common())) {
      // The records go through as they are (encoded when written as LAZ), never built into a
      // grid: the same file as through one, in a fraction of the time and bounded memory.
      const std::uint64_t points = Las::merge({in_}, out_, streamSettings(host.common()));
      host.summary("convert", points, "1 fragments");
      return 0;
    }
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
  // LAS into LAS or LAZ, whole, with the input's scale and offset, no text columns.
  bool copiesRecords(const Common& common) const {
    return fields_.empty() && recordsCanPass(in_, out_, write_, common);
  }

  std::string in_, out_;
  std::vector<std::string> fields_;
  Las::WriteOptions write_;
};

} // namespace

std::unique_ptr<Command> makeConvert() {
  return std::make_unique<Convert>();
}

} // namespace Quorvel::Cli
