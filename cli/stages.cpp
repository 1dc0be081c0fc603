// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: pipeline files read and checked, and their stages run.
#include "cli/stages.hpp"

#include <CLI/CLI.hpp> // a stage parses its options with an App of its own

#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

namespace Quorvel::Cli {

namespace {

using Event = nlohmann::json::parse_event_t;

// The JSON library's message without its "[json.exception.parse_error.101] " tag.
std::string withoutTag(const std::string& what) {
  const auto end = what.find("] ");
  return what.rfind("[json.", 0) == 0 && end != std::string::npos ? what.substr(end + 2) : what;
}

// Follows the parser through the file (as its callback), so that an error can say which element
// of the array and which key it is in, and refuses what the JSON library takes silently: a key
// twice in one object (the library keeps the last) and a NUL inside a text (a file name would
// end there).
class Place {
public:
  explicit Place(const std::string& path) : path_(&path) {}

  bool operator()(int depth, Event event, nlohmann::json& parsed) {
    const bool opens = event == Event::object_start || event == Event::array_start;
    if (depth == 1 && (opens || event == Event::value)) {
      ++element_;
      key_.clear();
    }
    if (event == Event::object_start)
      keys_.emplace_back();
    else if (event == Event::object_end)
      keys_.pop_back();
    else if (event == Event::key)
      see(parsed.get<std::string>());
    else if (event == Event::value && parsed.is_string() &&
             parsed.get_ref<const std::string&>().find('\0') != std::string::npos)
      fail("a text holds a NUL character");
    return true;
  }

  // "element 3: \"radius\": ", or nothing before the first element.
  std::string where() const {
    if (element_ == 0)
      return {};
    return "element " + std::to_string(element_) + ": " + (key_.empty() ? "" : quoted(key_) + ": ");
  }

private:
  static std::string quoted(const std::string& text) { return "\"" + text + "\""; }

  void see(const std::string& key) {
    key_.clear();
    if (key.find('\0') != std::string::npos)
      fail("a key holds a NUL character");
    if (!keys_.empty() && !keys_.back().insert(key).second)
      fail("the key " + quoted(key) + " is given twice");
    key_ = key;
  }

  [[noreturn]] void fail(const std::string& what) const {
    throw Error(*path_ + ": " + where() + what);
  }

  const std::string* path_;
  std::size_t element_ = 0;                 // the top-level elements begun, counted from 1
  std::string key_;                         // the last key read in the current element
  std::vector<std::set<std::string>> keys_; // the keys of every open object
};

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
    Place place(path_);
    nlohmann::json stages;
    try {
      stages = nlohmann::json::parse(in, std::ref(place));
    } catch (const nlohmann::json::exception& e) {
      throw Error(path_ + ": " + place.where() + "not a JSON text: " + withoutTag(e.what()));
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
    Stage stage{object["command"].get<std::string>(), k, nullptr, std::make_unique<CLI::App>()};
    const auto& table = commands();
    const auto entry = std::find_if(table.begin(), table.end(),
                                    [&](const auto& e) { return stage.name == e.name; });
    if (entry == table.end())
      fail(k, "unknown command \"" + stage.name + "\"");
    auto command = entry->make();
    if (auto* cloudCommand = dynamic_cast<CloudCommand*>(command.get())) {
      static_cast<void>(command.release()); // the stage owns it from here
      stage.command.reset(cloudCommand);
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
  // An option with its value, as the command line gives it. An empty value stands apart from its
  // option: after "--key=" the parser would take the next option as the value.
  static void addValue(std::vector<std::string>& args, const std::string& key,
                       const std::string& value) {
    if (value.empty()) {
      args.push_back("--" + key);
      args.push_back(value);
    } else {
      args.push_back("--" + key + "=" + value);
    }
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
        addValue(args, key, value.get<std::string>());
      } else if (value.is_number()) {
        addValue(args, key, value.dump());
      } else if (value.is_array() && option->get_items_expected_max() > 1) {
        // A repeatable option (assign's --set): one item each.
        for (const auto& item : value) {
          if (!item.is_string() && !item.is_number())
            fail(k, where + "\"" + key + "\" takes texts or numbers, not " + item.type_name());
          addValue(args, key, item.is_string() ? item.get<std::string>() : item.dump());
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
  file.path = path;
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

void runStages(PipelineFile& pipeline, Cloud& cloud, const Host& host) {
  for (Stage& stage : pipeline.stages) {
    try {
      stage.command->change(cloud, host);
    } catch (const std::exception& e) {
      throw elementError(pipeline.path, stage.element, stage.name + ": " + e.what());
    }
  }
}

} // namespace Quorvel::Cli
