// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: loading, saving, progress and the summary line.
#include "cli/host.hpp"

#include "cli/checks.hpp"

#include "cli/progress.hpp"
#include "io/files.hpp"
#include "io/raster.hpp"
#include "io/stream.hpp"
#include "io/tiles.hpp"
#include "tressel/point_cloud.hpp"

#include "basalt/console.hpp"
#include "basalt/text.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <omp.h>
#include <set>
#include <unistd.h>

namespace Quorvel::Cli {

namespace {

// The box of --box from its 4 or 6 numbers.
Las::Box boxOf(const std::vector<double>& v) {
  try {
    return Las::boxOf(v);
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError("--box", e.what());
  }
}

} // namespace

void addCommonOptions(CLI::App& app, Common& common) {
  app.add_option("--fragment-points", common.fragmentPoints,
                 "split files into x-y tiles of about N points; every neighbourhood algorithm "
                 "then sees only the points of a point's own tile, so results change with N "
                 "(0: one fragment per file)")
      ->capture_default_str();
  app.add_flag("-q,--quiet", common.quiet,
               "no progress bar, no summary line: nothing but errors and warnings on standard "
               "error");
  app.add_flag("-v,--verbose", common.verbose,
               "show the library's own lines (parameter boxes, progress, diagnostics) on "
               "standard error");
  // crop has a --box of its own (its area, also as a pipeline stage).
  if (!app.get_option_no_throw("--box"))
    app.add_option_function<std::vector<double>>(
           "--box", [&common](const std::vector<double>& v) { common.box = boxOf(v); },
           "read only the points of LAS and LAZ inputs inside X0,Y0,X1,Y1 or X0,Y0,X1,Y1,Z0,Z1 "
           "(edges included)")
        ->delimiter(',')
        ->expected(4, 6);
  if (!app.get_option_no_throw("--threads"))
    app.add_option_function<int>(
           "--threads", [&common](int n) { common.threads = n; },
           "threads of the run (1 or more; an algorithm that keeps one back for the host uses "
           "all but one, at least 1)")
        ->check(CLI::Range(1, 4096));
}

namespace {

// Standard error for the library's lines, remembering whether the last of them was a progress
// line left open by its carriage return, so that the host's own line starts on a line of its own.
class LibraryLines : public std::streambuf {
public:
  // Ends an open progress line.
  void close() {
    if (last_ == '\r')
      std::fputc('\n', stderr);
    last_ = '\n';
  }

protected:
  int overflow(int c) override {
    if (c != traits_type::eof())
      put(static_cast<char>(c));
    return c;
  }
  std::streamsize xsputn(const char* text, std::streamsize n) override {
    for (std::streamsize k = 0; k < n; ++k)
      put(text[k]);
    return n;
  }
  int sync() override { return std::fflush(stderr); }

private:
  void put(char c) {
    std::fputc(c, stderr);
    last_ = c;
  }
  char last_ = '\n';
};

LibraryLines libraryLines;
std::ostream libraryStream(&libraryLines);

} // namespace

void showLibraryLines() {
  Basalt::Console::setSink(&libraryStream);
}

void setUpRun(const Common& common, bool hostThreads) {
  Basalt::Console::setSink(common.verbose ? &libraryStream : nullptr);
  // The run's threads bound its reading and writing too. A command whose box holds a thread
  // count takes the count there as well; one above what the runtime offers becomes all but one
  // in the box (its rule), and the reading and writing then keep the runtime's own.
  if (common.threads && *common.threads >= 1 &&
      (hostThreads || *common.threads <= omp_get_max_threads()))
    omp_set_num_threads(*common.threads);
}

namespace {

// "auto", one number, or three separated by commas, into a per-axis setting.
void parseAxes(const std::string& name, const std::string& text,
               std::optional<std::array<double, 3>>& axes, bool& automatic, bool positive) {
  if (text == "auto") {
    axes.reset();
    automatic = true;
    return;
  }
  const auto parts = Basalt::splitAt(text, ",");
  if (parts.size() != 1 && parts.size() != 3)
    throw CLI::ValidationError(name, "takes auto, one number or X,Y,Z, not \"" + text + "\"");
  std::array<double, 3> values{};
  for (std::size_t k = 0; k < 3; ++k) {
    const std::string part(parts[parts.size() == 1 ? 0 : k]);
    const auto value = finiteNumber(part);
    if (!value || (positive && !(*value > 0.0)))
      throw CLI::ValidationError(name, "\"" + part + "\" is not a " +
                                           (positive ? "positive " : "") + "finite number");
    values[k] = *value;
  }
  axes = values;
  automatic = false;
}

} // namespace

void addWriteOptions(CLI::App& app, Las::WriteOptions& options) {
  app.add_option_function<std::string>(
      "--scale,--las-scale",
      [&options](const std::string& text) {
        parseAxes("--scale", text, options.scale, options.autoScale, true);
      },
      "LAS coordinate scale: auto (0.001), S or X,Y,Z (default: the input's)");
  const bool taken = app.get_option_no_throw("--offset") != nullptr;
  app.add_option_function<std::string>(
      taken ? "--las-offset" : "--offset,--las-offset",
      [&options](const std::string& text) {
        parseAxes("--offset", text, options.offset, options.autoOffset, false);
      },
      "LAS coordinate offset: auto (the rounded minimum), O or X,Y,Z (default: the input's)");
}

std::size_t pointCount(const Tressel::Grid& grid) {
  std::size_t n = 0;
  if (auto positions = grid.CartesianPositions())
    positions->iterate([&](const auto&, const auto& creator) {
      if (creator && creator->peekData())
        n += creator->peekData()->nElements();
      return true;
    });
  return n;
}

void checkOutput(const std::string& path) {
  namespace fs = std::filesystem;
  if (Files::isStream(path))
    return;
  std::error_code error;
  if (fs::is_directory(path, error))
    throw Error(path + ": is a directory");
  const fs::path folder =
      fs::path(path).parent_path().empty() ? fs::path(".") : fs::path(path).parent_path();
  if (!fs::is_directory(folder, error))
    throw Error(path + ": cannot be written: no such directory " + folder.string());
  if (::access(folder.c_str(), W_OK) != 0)
    throw Error(path + ": cannot be written: the directory " + folder.string() +
                " is not writable");
}

std::vector<unsigned char> classesOf(const Tressel::Grid& grid, const std::string& field,
                                     const std::string& path) {
  auto classes = grid(Tressel::StandardCartesianChart3D, field);
  if (!classes)
    throw Error(path + ": no field " + field);
  auto values = Tressel::readField<unsigned char>(*classes);
  if (auto index = grid(Tressel::StandardCartesianChart3D, "PointIndex")) {
    const auto indices = Tressel::readField<unsigned long long>(*index);
    if (indices.size() != values.size())
      throw Error(path + ": field \"PointIndex\" holds " + std::to_string(indices.size()) +
                  " values for " + std::to_string(values.size()) + " points");
    // The writer's rule of file order, so that compare and info count what a file would hold.
    const auto places = Las::filePlaces({indices.begin(), indices.end()});
    std::vector<unsigned char> sorted(values.size());
    for (std::size_t k = 0; k < values.size(); ++k)
      sorted[places[k]] = values[k];
    return sorted;
  }
  return values;
}

Host::Host(const Common& common)
    : common_(common), terminal_(::isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()) {}

Basalt::StrongPtr<Basalt::LoaderProgress> Host::progress(const std::string& what) const {
  if (common_.quiet || !terminal_)
    return {};
  return std::make_shared<Phase>(what);
}

namespace {

// Ends a step's progress line with its point count, when there is one.
void finish(const Basalt::StrongPtr<Basalt::LoaderProgress>& progress, std::size_t points) {
  if (auto* phase = dynamic_cast<Phase*>(progress.get())) {
    phase->setPoints(points);
    phase->finish();
  }
}

} // namespace

Las::Warn readWarnings(const std::string& path) {
  return [path](const std::string& text) {
    // A file read twice in a run (its fields chosen first, then whole) says each warning once.
    static std::mutex mutex;
    static std::set<std::string> said;
    const std::string line = path + ": warning: " + text + "\n";
    const std::lock_guard<std::mutex> lock(mutex);
    if (said.insert(line).second)
      std::cerr << line;
  };
}

bool mayHaveCoordinateSystem(const std::string& path) {
  if (!Files::isCloudFile(path) || Files::isBundle(path) || Files::isStream(path))
    return true;
  try {
    return Las::hasCoordinateSystemRecords(Las::Reader(path).info());
  } catch (const Las::Error&) {
    return false;
  }
}

Las::Warn writeWarnings(const std::string& path) {
  return [path](const std::string& text) { std::cerr << path << ": " << text << "\n"; };
}

Cloud Host::load(const std::string& path, const std::set<std::string>& only) const {
  const auto shown = progress("read " + path);
  Cloud cloud;
  if (common_.box && (Files::isBundle(path) || !Files::isCloudFile(path)))
    throw Error(path + ": --box reads LAS and LAZ files only");
  if (common_.box && common_.fragmentPoints > 0)
    throw Error("--box reads one fragment: it does not go with --fragment-points");
  if (common_.box)
    cloud.grid = Las::read(path, *common_.box, readWarnings(path)).grid;
  else
    cloud.grid = Raster::isRasterFile(path)
                     ? Raster::import(path)
                     : Files::load(path, common_.fragmentPoints, shown, only, readWarnings(path));
  finish(shown, pointCount(*cloud.grid));
  return cloud;
}

void Host::save(const std::string& path, const Cloud& cloud,
                const Las::WriteOptions& options) const {
  const auto shown = progress("write " + path);
  if (Raster::isRasterFile(path))
    Raster::writeGeoTiff(path, *cloud.grid, cloud.rasterField, readWarnings(path));
  else {
    Las::WriteOptions told = options;
    if (!told.warn)
      told.warn = writeWarnings(path);
    Files::save(path, cloud.grid, told, shown);
  }
  finish(shown, pointCount(*cloud.grid));
}

void Host::run(const std::string& what, std::size_t count,
               const std::function<void()>& step) const {
  const auto shown = progress(what);
  step();
  finish(shown, count);
}

bool recordsCanPass(const std::string& in, const std::string& out, const Las::WriteOptions& write,
                    const Common& common) {
  const auto plainLas = [](const std::string& path) {
    return Files::isCloudFile(path) && !Files::isBundle(path) && !Files::isStream(path) &&
           !Files::isCopc(path);
  };
  return plainLas(in) && !Files::isLaz(in) && plainLas(out) && !write.scale && !write.offset &&
         !write.autoScale && !write.autoOffset && !common.box && common.fragmentPoints == 0;
}

bool Host::copyRecords(const std::string& input, const std::vector<std::size_t>& kept,
                       std::uint64_t total, const std::string& output) const {
  const auto shown = progress("write " + output);
  if (!Las::copyRecords(input, kept, total, output))
    return false;
  finish(shown, kept.size());
  return true;
}

bool Host::copyRecordsWithClasses(const std::string& input, std::span<const std::uint8_t> classes,
                                  const std::string& output) const {
  const auto shown = progress("write " + output);
  if (!Las::copyRecordsWithClasses(input, classes, output))
    return false;
  finish(shown, classes.size());
  return true;
}

void Host::summary(const std::string& command, const Tressel::Grid& grid) const {
  const auto positions = grid.CartesianPositions();
  summary(command, pointCount(grid),
          std::to_string(positions ? positions->nFragments() : 0) + " fragments");
}

void Host::summary(const std::string& command, std::uint64_t points,
                   const std::string& parts) const {
  if (common_.quiet)
    return;
  libraryLines.close();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  std::fprintf(stderr, "quorvel %s: %llu points, %s, %.3f s, %.0f points/s\n", command.c_str(),
               static_cast<unsigned long long>(points), parts.c_str(), seconds,
               seconds > 0 ? static_cast<double>(points) / seconds : 0.0);
}

void Host::note(const std::string& text) const {
  if (common_.quiet || text.empty())
    return;
  libraryLines.close();
  std::fprintf(stderr, "%s\n", text.c_str());
}

} // namespace Quorvel::Cli
