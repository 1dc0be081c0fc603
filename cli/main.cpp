// SPDX-License-Identifier: BSD-3-Clause
// quorvel: the command-line host. Loads LAS or bundle files, runs one algorithm (or a pipeline
// of them) with its parameter box filled from options, writes the result.
#include "cli/commands/command.hpp"

// The whole of CLI11 here, where the application is made, parsed and its help formatted; the
// commands include only its App and Option (cli/commands/command.hpp).
#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// The option of app (or of the host) nearest to an unknown one, when it is near enough to be a
// typing slip: at most two edits, or the unknown one a beginning of it.
std::string nearestOption(const CLI::App& app, const std::string& unknown) {
  std::string best;
  std::size_t bestDistance = 3;
  for (const CLI::App* owner : {&app, app.get_parent()}) {
    if (!owner)
      continue;
    for (const CLI::Option* option : owner->get_options()) {
      for (const std::string& name : option->get_lnames()) {
        const std::string candidate = "--" + name;
        const std::size_t distance =
            candidate.rfind(unknown, 0) == 0 ? 1 : Quorvel::Cli::editDistance(unknown, candidate);
        if (distance < bestDistance) {
          best = candidate;
          bestDistance = distance;
        }
      }
    }
  }
  return best;
}

// Names the arguments a command did not expect: unknown options with the nearest known one.
int extrasError(const CLI::App& command, const std::vector<std::string>& extras) {
  const std::string who = "quorvel " + command.get_name();
  bool named = false;
  for (const std::string& extra : extras) {
    if (extra.rfind('-', 0) != 0 || extra.size() < 2)
      continue;
    const std::string option = extra.substr(0, extra.find('='));
    const std::string nearest = nearestOption(command, option);
    std::fprintf(stderr, "%s: unknown option %s%s (all options: quorvel %s --help)\n", who.c_str(),
                 option.c_str(), nearest.empty() ? "" : (", did you mean " + nearest + "?").c_str(),
                 command.get_name().c_str());
    named = true;
  }
  if (!named)
    std::fprintf(stderr, "%s: unexpected argument \"%s\" (quorvel %s --help shows the usage)\n",
                 who.c_str(), extras.front().c_str(), command.get_name().c_str());
  return 2;
}

// Prints a usage error in CLI11's words, or names an unknown command with the known ones, or an
// unknown option with the nearest one, and gives the exit code of usage errors, 2 (help and
// version: 0).
int usageError(CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0)
    return app.exit(error);
  const std::vector<std::string> left = app.remaining();
  const CLI::App* chosen = nullptr;
  for (const CLI::App* sub : app.get_subcommands({}))
    if (sub->parsed())
      chosen = sub;
  if (!chosen && !left.empty() && left.front().rfind('-', 0) != 0) {
    std::string names;
    for (const CLI::App* sub : app.get_subcommands({}))
      names += (names.empty() ? "" : ", ") + sub->get_name();
    std::fprintf(stderr, "quorvel: unknown command \"%s\" (the commands: %s)\n",
                 left.front().c_str(), names.c_str());
    return 2;
  }
  const std::vector<std::string> extras = app.remaining(true);
  if (chosen && error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError) &&
      !extras.empty())
    return extrasError(*chosen, extras);
  app.exit(error);
  return 2;
}

} // namespace

int main(int argc, char** argv) {
  using namespace Quorvel::Cli;
  // A write beyond the file-size limit then fails with its error, reported like any other,
  // instead of killing the host with the file half written.
  std::signal(SIGXFSZ, SIG_IGN);
  CLI::App app{"quorvel: point-cloud algorithms on LAS and bundle files"};
  app.require_subcommand(1);
  app.set_version_flag("--version", "quorvel " QUORVEL_VERSION);
  Common common;
  addCommonOptions(app, common);

  struct Entry {
    CLI::App* sub;
    std::unique_ptr<Command> command;
    bool boxThreads; // the command's box has a thread count of its own
  };
  std::vector<Entry> table;
  for (const CommandEntry& entry : commands()) {
    CLI::App* sub = app.add_subcommand(entry.name, entry.help);
    auto command = entry.make();
    command->addOptions(*sub);
    const bool boxThreads = sub->get_option_no_throw("--threads") != nullptr;
    addCommonOptions(*sub, common);
    for (CLI::App* form : sub->get_subcommands({}))
      addCommonOptions(*form, common);
    table.push_back({sub, std::move(command), boxThreads});
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return usageError(app, e);
  }
  try {
    const Host host(common);
    for (auto& [sub, command, boxThreads] : table)
      if (*sub) {
        Common run = common;
        // A command's own --threads, after its name, is the run's count.
        if (const CLI::Option* own = sub->get_option_no_throw("--threads"); own && own->count())
          run.threads = own->as<int>();
        setUpRun(run, !boxThreads);
        return command->run(host);
      }
  } catch (const CLI::ParseError& e) {
    // A command line that only the command itself can judge (one of two forms).
    return usageError(app, e);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvel: error: %s\n", e.what());
    return 1;
  }
  return 0;
}
