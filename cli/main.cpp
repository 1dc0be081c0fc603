// quorvel: the command-line host. Loads LAS or bundle files, runs one algorithm (or a pipeline
// of them) with its parameter box filled from options, writes the result.
#include "cli/commands/command.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <unistd.h>

namespace {

// Arrays of a whole cloud are touched page by page when first written; on a virtual machine each
// 4 KiB page fault costs microseconds, and a transfer of 1M points onto 1M faults some 47,000
// times: half its time. glibc backs its heap with transparent huge pages when its tunable
// glibc.malloc.hugetlb is 1, but reads tunables only when a program starts, so the host starts
// itself once more with the tunable added. Should that fail, it simply runs as it is.
void restartWithHugePages(char** argv) {
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables && std::strstr(tunables, "glibc.malloc.hugetlb"))
    return;
  std::string value = tunables && *tunables ? std::string(tunables) + ":" : std::string();
  value += "glibc.malloc.hugetlb=1";
  if (::setenv("GLIBC_TUNABLES", value.c_str(), 1) == 0)
    ::execv("/proc/self/exe", argv);
}

// Prints a usage error in CLI11's words, or names an unknown command with the known ones, and
// gives the exit code of usage errors, 2 (help and version: 0).
int usageError(CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0)
    return app.exit(error);
  const std::vector<std::string> left = app.remaining();
  bool chosen = false;
  for (const CLI::App* sub : app.get_subcommands({}))
    chosen = chosen || sub->parsed();
  if (!chosen && !left.empty() && left.front().rfind('-', 0) != 0) {
    std::string names;
    for (const CLI::App* sub : app.get_subcommands({}))
      names += (names.empty() ? "" : ", ") + sub->get_name();
    std::fprintf(stderr, "quorvel: unknown command \"%s\" (the commands: %s)\n",
                 left.front().c_str(), names.c_str());
    return 2;
  }
  app.exit(error);
  return 2;
}

} // namespace

int main(int argc, char** argv) {
  using namespace Quorvel::Cli;
  restartWithHugePages(argv);
  // A write beyond the file-size limit then fails with its error, reported like any other,
  // instead of killing the host with the file half written.
  std::signal(SIGXFSZ, SIG_IGN);
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
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return usageError(app, e);
  }
  try {
    const Host host(common);
    for (auto& [sub, command] : table)
      if (*sub)
        return command->run(host);
  } catch (const CLI::ParseError& e) {
    // A command line that only the command itself can judge (one of two forms).
    return usageError(app, e);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvel: error: %s\n", e.what());
    return 1;
  }
  return 0;
}
