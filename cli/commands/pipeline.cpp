// SPDX-License-Identifier: BSD-3-Clause
// quorvel pipeline: reads a cloud once, runs several commands on it in order, writes it once.
// The file is a JSON array: the input file name, stage objects whose keys are the long option
// names of their command, and the output file name. Every stage is checked before anything runs.
#include "cli/commands/command.hpp"
#include "cli/stages.hpp"

#include <filesystem>

namespace Quorvel::Cli {

namespace {

const char* const Example = R"(Example (classes from a.las within 1 m, then cell sizes):
  [
    "target.las",
    {"command": "transfer", "source": "a.las", "bands": "1"},
    {"command": "cellsize"},
    "out.las"
  ]
Keys are the long option names of the stage's command (quorvel COMMAND --help); flags take
true or false. A stage sees the fields the stages before it wrote.)";

class Pipeline final : public Command {
public:
  explicit Pipeline(std::string path = {}) : path_(std::move(path)) {}

  void addOptions(CLI::App& app) override {
    app.add_option("FILE", path_, "the pipeline, a JSON array")->required();
    addWriteOptions(app, write_);
    app.footer(Example);
  }

  int run(const Host& host) override {
    PipelineFile checked = check();
    checkOutput(*checked.output);
    Cloud cloud = host.load(*checked.input);
    runStages(checked, cloud, host);
    for (const Cloud::Raster& made : cloud.rasters)
      host.save(made.name, {made.grid, made.field, {}});
    host.save(*checked.output, cloud, write_);
    host.summary("pipeline", *cloud.grid);
    return 0;
  }

  // The file read and every element checked, nothing run yet.
  PipelineFile check() const {
    return readPipeline(path_, true, [this](const PipelineFile& file) {
      const std::size_t last = file.elements - 1;
      if (!std::filesystem::exists(*file.input))
        throw elementError(path_, 0, "no such file: " + *file.input);
      if (const auto problem = unwritableName(*file.output))
        throw elementError(path_, last, *problem);
      const auto directory = std::filesystem::path(*file.output).parent_path();
      if (!directory.empty() && !std::filesystem::is_directory(directory))
        throw elementError(path_, last, "no such directory for the output: " + directory.string());
    });
  }

private:
  std::string path_;
  Las::WriteOptions write_;
};

} // namespace

void checkPipeline(const std::string& path) {
  Pipeline(path).check();
}

std::unique_ptr<Command> makePipeline() {
  return std::make_unique<Pipeline>();
}

} // namespace Quorvel::Cli
