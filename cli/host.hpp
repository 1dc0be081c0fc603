// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: what every command shares: the common options, loading and saving clouds,
// progress on the terminal and the summary line.
#pragma once

#include "basalt/loader_progress.hpp"
#include "io/files.hpp"
#include "io/las.hpp"
#include "io/stream.hpp"
#include "tressel/grid.hpp"

#include <CLI/App.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace Quorvel::Cli {

// A failure the host reports as "quorvel: error: <text>" with exit code 1.
struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Options every command accepts, before or after its name.
struct Common {
  // 0: a file is one fragment, so no result depends on tiling; N: x-y tiles of about N points.
  std::size_t fragmentPoints = 0;
  // No progress bar and no summary line.
  bool quiet = false;
  // The library's own lines (its boxes, progress and diagnostics) on standard error; without it
  // they are not shown, so that standard output holds the command's data only.
  bool verbose = false;
  // The run's threads: a box's thread count where the command has one, else the OpenMP thread
  // count of the host; unset keeps the defaults.
  std::optional<int> threads;
  // Only the points of LAS and LAZ inputs inside this box are read.
  std::optional<Las::Box> box;
};

// Adds the common options to a command line (the host's and every command's, bound to the same
// settings, so that they are accepted in both places). A command with a --threads of its own
// keeps it.
void addCommonOptions(CLI::App& app, Common& common);

// Sets up what the common options ask of the whole process: where the library's lines go and
// the OpenMP thread count: --threads for a command without a thread count of its own
// (hostThreads); for one with (its box takes --threads, or its own option's count, which the
// caller then puts in common.threads), the same where the runtime offers that many, so that its
// reading and writing keep to it too.
void setUpRun(const Common& common, bool hostThreads);
// Shows the library's lines on standard error from now on, as --verbose does.
void showLibraryLines();

// A point cloud as loaded. A grid read from LAS carries its LAS origin (header, VLRs, EVLRs) as
// attributes, so that writing it back, directly or through a bundle, keeps them.
struct Cloud {
  Basalt::StrongPtr<Tressel::Grid> grid;
  // For a raster written as GeoTIFF: the cell field that becomes its band.
  std::string rasterField = "Height";
  // Rasters that pipeline stages made beside the cloud (a dtm stage), by the file name their
  // stage gave: later stages take them by that name (map --raster), and they are written when
  // the stages are done (a catalogue cuts each to its chunk).
  struct Raster {
    std::string name;
    Basalt::StrongPtr<Tressel::Grid> grid;
    std::string field;
  };
  std::vector<Raster> rasters;
  const Raster* raster(const std::string& name) const {
    for (const Raster& r : rasters)
      if (r.name == name)
        return &r;
    return nullptr;
  }
};

// Adds --scale and --offset (with the aliases --las-scale and --las-offset; only the alias for an
// offset when the command's own --offset means something else): "auto", one number for all
// three axes, or X,Y,Z.
void addWriteOptions(CLI::App& app, Las::WriteOptions& options);

using Files::isBundle;

// io's warnings about a file read from path, each written to standard error as
// "<path>: warning: <text>", once in a run.
Las::Warn readWarnings(const std::string& path);
// io's note of the version and format a file written to path moves to, written to standard error
// as "<path>: <text>".
Las::Warn writeWarnings(const std::string& path);

std::size_t pointCount(const Tressel::Grid& grid);

// Whether the cloud at path may carry a coordinate system: false only for a LAS or LAZ file whose
// header and records (read now) hold none, or cannot be read (the run then says why).
bool mayHaveCoordinateSystem(const std::string& path);

// Whether the records of the LAS file in can pass into out (LAS or LAZ) as they are: neither is
// COPC, a bundle or a stream, in is not compressed, the write keeps in's scale and offset, and
// the whole file is read (no --box) in one fragment.
bool recordsCanPass(const std::string& in, const std::string& out, const Las::WriteOptions& write,
                    const Common& common);

// Throws Error unless a file can be written at path: its folder exists and is writable, and
// path is no folder. Checked before anything is read, so that a long run does not end in "no
// such directory".
void checkOutput(const std::string& path);

// The values of a one-byte field in file order (by "PointIndex" where the file gave one).
std::vector<unsigned char> classesOf(const Tressel::Grid& grid, const std::string& field,
                                     const std::string& path);

// The running host: common settings, the clock, and the progress shown while it works.
class Host {
public:
  explicit Host(const Common& common);

  const Common& common() const { return common_; }
  // Progress of long steps on standard error when it is a terminal; empty otherwise.
  Basalt::StrongPtr<Basalt::LoaderProgress> progress(const std::string& what) const;

  // Reads a LAS, bundle or raster file (Raster::isRasterFile); only, when not empty, limits the
  // fields made from a LAS file (besides "Positions") for a cloud that is searched and not written
  // back.
  Cloud load(const std::string& path, const std::set<std::string>& only = {}) const;
  void save(const std::string& path, const Cloud& cloud,
            const Las::WriteOptions& options = {}) const;
  // Writes the records of the LAS file input numbered kept (ascending) to output as they are
  // (Las::copyRecords); false, with nothing written, when input holds another number of points
  // than total.
  bool copyRecords(const std::string& input, const std::vector<std::size_t>& kept,
                   std::uint64_t total, const std::string& output) const;
  // Writes every record of the LAS file input to output with its class replaced
  // (Las::copyRecordsWithClasses); false, with nothing written, where that cannot be done.
  bool copyRecordsWithClasses(const std::string& input, std::span<const std::uint8_t> classes,
                              const std::string& output) const;
  // Runs step, showing the elapsed time and the points/s over count points while it runs.
  void run(const std::string& what, std::size_t count, const std::function<void()>& step) const;
  // "quorvel <command>: <points> points, <fragments> fragments, <s> s, <points/s> points/s" on
  // standard error, unless quiet.
  void summary(const std::string& command, const Tressel::Grid& grid) const;
  // The same for a command that streams records: "<points> points, <parts>, ...".
  void summary(const std::string& command, std::uint64_t points, const std::string& parts) const;
  // A run's report (the text an algorithm returns) on standard error as one line, unless quiet.
  void note(const std::string& text) const;

private:
  Common common_;
  bool terminal_;
  std::chrono::steady_clock::time_point start_;
};

} // namespace Quorvel::Cli
