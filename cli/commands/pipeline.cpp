// quorvel pipeline: reads a cloud once, runs several commands on it in order, writes it once.
// The file is a JSON array: the input file name, stage objects whose keys are the long option
// names of their command, and the output file name. Every stage is checked before anything runs.
#include "cli/commands/command.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>

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

// One stage: its command with its own option parser, parsed from the stage object.
struct Stage {
  std::string name;
  std::unique_ptr<CloudCommand> command;
  std::unique_ptr<CLI::App> options;
};

class Pipeline final : public Command {
public:
  explicit Pipeline(std::string path = {}) : path_(std::move(path)) {}

  void addOptions(CLI::App& app) override {
    app.add_option("FILE", path_, "the pipeline, a JSON array")->required();
    addWriteOptions(app, write_);
    app.footer(Example);
  }

  int run(const Host& host) override {
    Checked checked = check();
    checkOutput(checked.output);
    Cloud cloud = host.load(checked.input);
    for (Stage& stage : checked.stages)
      stage.command->change(cloud, host);
    host.save(checked.output, cloud, write_);
    host.summary("pipeline", *cloud.grid);
    return 0;
  }

  // The file read and every element checked, nothing run yet.
  struct Checked {
    std::string input, output;
    std::vector<Stage> stages;
  };
  Checked check() const {
    const nlohmann::json stages = readFile();
    const std::size_t last = stages.size() - 1;
    Checked checked{fileName(stages, 0, "input"), fileName(stages, last, "output"), {}};
    if (!std::filesystem::exists(checked.input))
      fail(0, "no such file: " + checked.input);
    if (const auto problem = unwritableName(checked.output))
      fail(last, *problem);
    const auto directory = std::filesystem::path(checked.output).parent_path();
    if (!directory.empty() && !std::filesystem::is_directory(directory))
      fail(last, "no such directory for the output: " + directory.string());
    for (std::size_t k = 1; k < last; ++k)
      checked.stages.push_back(parse(stages[k], k));
    return checked;
  }

private:
  [[noreturn]] void fail(std::size_t element, const std::string& what) const {
    throw Error(path_ + ": element " + std::to_string(element + 1) + ": " + what);
  }

  nlohmann::json readFile() const {
    std::ifstream in(path_);
    if (!in)
      throw Error(path_ + ": no such file");
    nlohmann::json stages;
    try {
      stages = nlohmann::json::parse(in);
    } catch (const nlohmann::json::parse_error& e) {
      throw Error(path_ + ": not a JSON text: " + e.what());
    }
    if (!stages.is_array() || stages.size() < 2)
      throw Error(path_ + ": a pipeline is a JSON array: an input file name, stage objects, "
                          "an output file name");
    return stages;
  }

  std::string fileName(const nlohmann::json& stages, std::size_t k, const char* what) const {
    if (!stages[k].is_string())
      fail(k, std::string("the ") + what + " file name must be a text");
    return stages[k].get<std::string>();
  }

  Stage parse(const nlohmann::json& object, std::size_t k) const {
    if (!object.is_object() || !object.contains("command") || !object["command"].is_string())
      fail(k, "a stage is an object with a text \"command\"");
    Stage stage{object["command"].get<std::string>(), nullptr, std::make_unique<CLI::App>()};
    const auto& table = commands();
    const auto entry = std::find_if(table.begin(), table.end(),
                                    [&](const auto& e) { return stage.name == e.name; });
    if (entry == table.end())
      fail(k, "unknown command \"" + stage.name + "\"");
    auto command = entry->make();
    stage.command.reset(dynamic_cast<CloudCommand*>(command.get()));
    if (!stage.command)
      fail(k, "\"" + stage.name + "\" does not change a cloud and cannot be a stage");
    command.release();
    stage.command->addStageOptions(*stage.options);
    parseOptions(stage, object, k);
    return stage;
  }

  void parseOptions(Stage& stage, const nlohmann::json& object, std::size_t k) const {
    const std::string where = stage.name + ": ";
    std::vector<std::string> args;
    for (const auto& [key, value] : object.items()) {
      if (key == "command")
        continue;
      const CLI::Option* option = stage.options->get_option_no_throw("--" + key);
      if (!option)
        fail(k, where + "unknown option \"" + key + "\"");
      if (option->get_expected_max() == 0) {
        if (!value.is_boolean())
          fail(k, where + "\"" + key + "\" takes true or false");
        if (value.get<bool>())
          args.push_back("--" + key);
      } else if (value.is_string()) {
        args.push_back("--" + key + "=" + value.get<std::string>());
      } else if (value.is_number()) {
        args.push_back("--" + key + "=" + value.dump());
      } else if (value.is_array() && option->get_items_expected_max() > 1) {
        // A repeatable option (assign's --set): one item each.
        for (const auto& item : value) {
          if (!item.is_string() && !item.is_number())
            fail(k, where + "\"" + key + "\" takes texts or numbers, not " + item.type_name());
          args.push_back("--" + key + "=" +
                         (item.is_string() ? item.get<std::string>() : item.dump()));
        }
      } else {
        fail(k, where + "\"" + key + "\" takes a text or a number, not " + value.type_name());
      }
    }
    std::reverse(args.begin(), args.end()); // CLI11 takes a vector of arguments last first
    try {
      stage.options->parse(args);
    } catch (const CLI::ParseError& e) {
      fail(k, where + e.what());
    }
    for (const CLI::Option* file : stage.command->inputFiles())
      for (const std::string& name : file->results())
        if (!std::filesystem::exists(name))
          fail(k, where + file->get_single_name() + ": no such file: " + name);
  }

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
