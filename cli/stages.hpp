// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: pipeline files, a JSON array of stage objects (each a command that changes a
// cloud, with its long option names as keys) between an optional input and output file name.
#pragma once

#include "cli/commands/command.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Cli {

// One stage: its command with its own option parser, its options parsed.
struct Stage {
  std::string name;
  std::size_t element = 0; // its place in the file's array, counted from 0
  std::unique_ptr<CloudCommand> command;
  std::unique_ptr<CLI::App> options;
};

// A pipeline file read and every stage checked, nothing run yet.
struct PipelineFile {
  std::string path;
  std::optional<std::string> input, output; // the first and last elements when they are texts
  std::size_t elements = 0;                 // how many elements the array holds
  std::vector<Stage> stages;
};

// Reads a pipeline file. With filesRequired (quorvel pipeline), the first element must name the
// input and the last the output; otherwise (a catalogue gives the files) either may be left out.
// checkFiles, when given, sees the file names before the stages are parsed. Throws Error
// "<path>: element <n>: <problem>" (see elementError) before anything runs.
PipelineFile readPipeline(const std::string& path, bool filesRequired,
                          const std::function<void(const PipelineFile&)>& checkFiles = {});

// The error about element (counted from 0) of the pipeline file at path.
Error elementError(const std::string& path, std::size_t element, const std::string& what);

// Runs the stages on a cloud, in order. A stage's failure is rethrown as an Error naming the
// pipeline file, the stage's element and its command ("<path>: element 3: transfer: <what>").
void runStages(PipelineFile& pipeline, Cloud& cloud, const Host& host);

} // namespace Quorvel::Cli
