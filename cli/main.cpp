// quorvel: the command-line host. Loads LAS or bundle files, runs one algorithm (or a pipeline
// of them) with its parameter box filled from options, writes the result.
#include "cli/commands/command.hpp"

#include <cstdio>
#include <malloc.h>

int main(int argc, char** argv) {
  using namespace Quorvel::Cli;
  // A run allocates and frees arrays of a whole cloud's size several times (fields, trees,
  // answers). Kept in the heap instead of being mapped and returned to the system each time,
  // their pages are not faulted in anew: a fifth of a transfer's time on 1M points.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  CLI::App app{"quorvel: point-cloud algorithms on LAS and bundle files"};
  app.require_subcommand(1);
  Common common;
  addCommonOptions(app, common);
  app.add_option_function<int>(
      "--threads", [&common](int n) { common.threads = n; },
      "worker threads of commands that have a thread count");

  std::vector<std::pair<CLI::App*, std::unique_ptr<Command>>> table;
  for (const CommandEntry& entry : commands()) {
    CLI::App* sub = app.add_subcommand(entry.name, entry.help);
    auto command = entry.make();
    command->addOptions(*sub);
    addCommonOptions(*sub, common);
    table.emplace_back(sub, std::move(command));
  }
  CLI11_PARSE(app, argc, argv);
  try {
    const Host host(common);
    for (auto& [sub, command] : table)
      if (*sub)
        return command->run(host);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvel: error: %s\n", e.what());
    return 1;
  }
  return 0;
}
