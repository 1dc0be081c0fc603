// quorvel host: pipeline files read and checked, and their stages run.
#include "cli/stages.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace Quorvel::Cli {

namespace {

class Reading {
public:
  explicit Reading(const std::string& path) : path_(path) {}

  [[noreturn]] void fail(std::size_t element, const std::string& what) const {
    throw elementError(path_, element, what);
  }

  nlohmann::json readFile(bool filesRequired) const {
    std::ifstream in(path_);
    if (!in)
      throw Error(path_ + ": no such file");
    nlohmann::json stages;
    try {
      stages = nlohmann::json::parse(in);
    } catch (const nlohmann::json::parse_error& e) {
      throw Error(path_ + ": not a JSON text: " + e.what());
    }
    if (filesRequired && (!stages.is_array() || stages.size() < 2))
      throw Error(path_ + ": a pipeline is a JSON array: an input file name, stage objects, "
                          "an output file name");
    if (!stages.is_array())
      throw Error(path_ + ": a pipeline is a JSON array of stage objects");
    return stages;
  }

  Stage parse(const nlohmann::json& object, std::size_t k) {
    if (!object.is_object() || !object.contains("command") || !object["command"].is_string())
      fail(k, "a stage is an object with a text \"command\"");
    Stage stage{object["command"].get<std::string>(), nullptr, std::make_unique<CLI::App>()};
    const auto& table = commands();
    const auto entry = std::find_if(table.begin(), table.end(),
                                    [&](const auto& e) { return stage.name == e.name; });
    if (entry == table.end())
      fail(k, "unknown command \"" + stage.name + "\"");
    auto command = entry->make();
    if (auto* cloudCommand = dynamic_cast<CloudCommand*>(command.get())) {
      stage.command.reset(cloudCommand);
      command.release();
    } else {
      stage.command = command->stage();
    }
    if (!stage.command)
      fail(k, "\"" + stage.name + "\" does not change a cloud and cannot be a stage");
    stage.command->addStageOptions(*stage.options);
    parseOptions(stage, object, k);
    for (const std::string& name : stage.command->outputFiles())
      made_.insert(name);
    return stage;
  }

private:
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
        if (!made_.count(name) && !std::filesystem::exists(name))
          fail(k, where + file->get_single_name() + ": no such file: " + name);
  }

  std::string path_;
  std::set<std::string> made_; // the files that stages before make
};

} // namespace

Error elementError(const std::string& path, std::size_t element, const std::string& what) {
  return Error(path + ": element " + std::to_string(element + 1) + ": " + what);
}

PipelineFile readPipeline(const std::string& path, bool filesRequired,
                          const std::function<void(const PipelineFile&)>& checkFiles) {
  Reading reading(path);
  const nlohmann::json elements = reading.readFile(filesRequired);
  PipelineFile file;
  file.elements = elements.size();
  std::size_t begin = 0, end = elements.size();
  const auto name = [&](std::size_t k, const char* what) {
    if (!elements[k].is_string())
      reading.fail(k, std::string("the ") + what + " file name must be a text");
    return elements[k].get<std::string>();
  };
  if (filesRequired || (end > 0 && elements[0].is_string()))
    file.input = name(begin++, "input");
  if (end > begin && (filesRequired || elements[end - 1].is_string()))
    file.output = name(--end, "output");
  if (checkFiles)
    checkFiles(file);
  for (std::size_t k = begin; k < end; ++k)
    file.stages.push_back(reading.parse(elements[k], k));
  return file;
}

void runStages(std::vector<Stage>& stages, Cloud& cloud, const Host& host) {
  for (Stage& stage : stages)
    stage.command->change(cloud, host);
}

} // namespace Quorvel::Cli
