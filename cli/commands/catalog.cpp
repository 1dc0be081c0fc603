// SPDX-License-Identifier: BSD-3-Clause
// quorvel catalog: a pipeline over a whole survey, chunk by chunk with buffers, on Dask. The
// engine is the Python package's quorvel.catalog; the host hands its command line over to it.
#include "cli/commands/command.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <unistd.h>
#include <vector>

namespace Quorvel::Cli {

namespace {

namespace fs = std::filesystem;

// Where the package quorvel is looked for, in order: $QUORVEL_PYTHONPATH; beside an installed
// host (PREFIX/bin/quorvel and PREFIX/lib/python3/dist-packages/quorvel); in a build tree
// (build/PRESET/cli/quorvel and build/PRESET/python/quorvel).
std::string packageFolder() {
  if (const char* set = std::getenv("QUORVEL_PYTHONPATH"); set && *set)
    return set;
  std::error_code error;
  const fs::path host = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& folder :
       {host / ".." / "lib" / "python3" / "dist-packages", host / ".." / "python"})
    if (fs::exists(folder / "quorvel" / "catalog.py", error))
      return fs::weakly_canonical(folder, error).string();
  throw Error("catalog: the Python package quorvel is not beside this host (" + host.string() +
              "/../lib/python3/dist-packages or " + host.string() +
              "/../python); set QUORVEL_PYTHONPATH to the folder that holds it");
}

class Catalog final : public Command {
public:
  void addOptions(CLI::App& app) override {
    // Everything after the command goes to the engine, which parses and explains it (--help).
    app.prefix_command();
    app.set_help_flag();
    app_ = &app;
    app.footer("quorvel catalog --help gives the engine's options.");
  }

  int run(const Host& host) override {
    std::string path = packageFolder();
    if (const char* before = std::getenv("PYTHONPATH"); before && *before)
      path += std::string(":") + before;
    ::setenv("PYTHONPATH", path.c_str(), 1);
    const char* python = std::getenv("QUORVEL_PYTHON");
    if (!python || !*python)
      python = QUORVEL_PYTHON;
    std::vector<std::string> args = {python, "-m", "quorvel.catalog"};
    if (host.common().quiet)
      args.push_back("--quiet");
    for (const std::string& arg : app_->remaining())
      args.push_back(arg);
    std::vector<char*> argv;
    for (std::string& arg : args)
      argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::fflush(nullptr);
    ::execv(python, argv.data());
    throw Error(std::string("catalog: cannot start ") + python + ": " + std::strerror(errno));
  }

private:
  CLI::App* app_ = nullptr;
};

} // namespace

std::unique_ptr<Command> makeCatalog() {
  return std::make_unique<Catalog>();
}

} // namespace Quorvel::Cli
