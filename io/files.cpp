// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: point-cloud files of either kind, and thinned clouds written to them.
#include "io/files.hpp"

#include "io/detail/copc.hpp"
#include "io/text.hpp"

#include "basalt/text.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "tressel/bundle.hpp"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iostream>
#include <optional>
#include <unistd.h>

namespace Quorvel::Files {

namespace {

// Whether the path ends in one of extensions (lower case), in any case.
bool hasExtension(const std::string& path, std::initializer_list<const char*> extensions) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

// A file in the temporary folder that is removed when dropped, for LAS passing through standard
// input or output.
class Spool {
public:
  Spool() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "quorvel-stream-XXXXXX.las").string();
    const int fd = ::mkstemps(pattern.data(), 4);
    if (fd < 0)
      throw Las::Error("-: no temporary file for the stream in " +
                       std::filesystem::temp_directory_path().string());
    ::close(fd);
    path_ = pattern;
  }
  ~Spool() { std::remove(path_.c_str()); }
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;
  const std::string& path() const { return path_; }

private:
  std::string path_;
};

// Copies a whole stream to another; false when either fails.
bool copy(std::istream& from, std::ostream& to) {
  char buffer[1 << 16];
  while (from.read(buffer, sizeof buffer) || from.gcount() > 0)
    if (!to.write(buffer, from.gcount()))
      return false;
  to.flush();
  return from.eof() && static_cast<bool>(to);
}

// The first point of a cloud with a NaN or infinite coordinate, counted from 0 over the
// fragments in layout order; nothing for a cloud without one (and for rasters, which hold no
// positions).
std::optional<std::size_t> firstNonFinitePoint(const StrongPtr<Grid>& grid) {
  const auto positions = findOptionalField(grid, Tressel::PositionsFieldName);
  if (!positions)
    return std::nullopt;
  std::size_t before = 0;
  for (const FragmentSlot& slot : fragmentsOf(*positions)) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    if (!xyz)
      continue;
    for (std::size_t i = 0; i < xyz->size(); ++i)
      if (!std::isfinite((*xyz)[i][0]) || !std::isfinite((*xyz)[i][1]) ||
          !std::isfinite((*xyz)[i][2]))
        return before + i;
    before += xyz->size();
  }
  return std::nullopt;
}

// The grid of a bundle: the one named, or its only one.
StrongPtr<Grid> bundleGrid(const std::string& path, const std::string& grid) {
  Tressel::Bundle bundle;
  if (!bundle.bindTo(path))
    throw Las::Error(bundle.lastError());
  const auto ids = bundle.getGridIdentifiers();
  if (ids.empty())
    throw Las::Error(path + ": the bundle holds no grid");
  std::string names;
  for (const Tressel::GridIdentifier& id : ids)
    names +=
        (names.empty() ? "" : ", ") + Basalt::format("\"%s\" (time %g)", id.grid.c_str(), id.time);
  // Several grids: which one was meant is not the reader's guess.
  const auto chosen = std::find_if(ids.begin(), ids.end(), [&](const Tressel::GridIdentifier& id) {
    return grid.empty() ? ids.size() == 1 : id.grid == grid;
  });
  if (chosen == ids.end())
    throw Las::Error(path + ": the bundle holds " + std::to_string(ids.size()) +
                     (ids.size() == 1 ? " grid (" : " grids (") + names + ")" +
                     (grid.empty() ? "; name the one to read (in Python: quorvel.read(path, "
                                     "grid=NAME))"
                                   : ", none named \"" + grid + "\""));
  auto read = (*bundle.findSlice(chosen->time))[chosen->grid];
  // LAS cannot hold a NaN position; a bundle can, and every neighbourhood and cell of such a
  // point would be wrong without a word.
  if (const auto bad = firstNonFinitePoint(read))
    throw Las::Error(path + ": point " + std::to_string(*bad) +
                     " (counted from 0) has a NaN or infinite coordinate");
  return read;
}

} // namespace

bool isStream(const std::string& path) {
  return path == "-";
}

bool isBundle(const std::string& path) {
  return hasExtension(path, {".h5", ".hdf5"});
}

bool isCloudFile(const std::string& path) {
  return hasExtension(path, {".las", ".laz", ".h5", ".hdf5"});
}

bool isLaz(const std::string& path) {
  return hasExtension(path, {".laz"});
}

bool isCopc(const std::string& path) {
  return Copc::isCopcPath(path);
}

bool isGeoTiff(const std::string& path) {
  return hasExtension(path, {".tif", ".tiff"});
}

Basalt::StrongPtr<Tressel::Grid> load(const std::string& path, std::size_t fragmentPoints,
                                      const Basalt::StrongPtr<Basalt::LoaderProgress>& progress,
                                      const std::set<std::string>& only, const Las::Warn& warn) {
  if (isStream(path)) {
    const Spool spool;
    std::ofstream to(spool.path(), std::ios::binary);
    std::cin.tie(nullptr);
    if (!copy(std::cin, to))
      throw Las::Error("-: standard input could not be read to " + spool.path());
    to.close();
    auto grid = Las::read(spool.path(), fragmentPoints, progress, only, warn).grid;
    return grid;
  }
  if (Text::isText(path) || Text::isPly(path))
    return Las::reading(path, "its points", [&] { return Text::read(path); });
  if (!isBundle(path))
    return Las::read(path, fragmentPoints, progress, only, warn).grid;
  return loadBundle(path);
}

StrongPtr<Grid> loadBundle(const std::string& path, const std::string& grid) {
  return Las::reading(path, "its grid", [&] { return bundleGrid(path, grid); });
}

void save(const std::string& path, const Basalt::StrongPtr<Tressel::Grid>& grid,
          const Las::WriteOptions& options,
          const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
  if (isStream(path)) {
    const Spool spool;
    Las::write(spool.path(), *grid, options, progress);
    std::ifstream from(spool.path(), std::ios::binary);
    if (!copy(from, std::cout))
      throw Las::Error("-: standard output could not be written");
    return;
  }
  if (Text::isText(path) || Text::isPly(path))
    return Text::write(path, *grid);
  if (!isBundle(path))
    return Las::write(path, *grid, options, progress);
  Tressel::Bundle bundle;
  // The base policy writes every field as it is: positions stay double, so a bundle keeps the
  // coordinates of the file it came from.
  if (!bundle.bindToNew(path, std::make_shared<Tressel::StorageTransformations>()))
    throw Las::Error(bundle.lastError());
  bundle[0.0]->setGrid(grid->Name().empty() ? "cloud" : grid->Name(), grid);
  if (!bundle.save())
    throw Las::Error(bundle.lastError());
}

std::string reduceSizeOfPointCloud(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                   PointCloudSizeReductionParameterBox& box,
                                   const std::string& path, const Las::WriteOptions& options) {
  Messages log("reduceSizeOfPointCloud: ", &box.message);
  try {
    const auto reduced = reducedPointCloud(grid, box);
    if (!reduced)
      return box.message;
    save(path, reduced, options);
    std::size_t in = 0, out = 0;
    for (const auto& slot : fragmentsOf(*grid->CartesianPositions()))
      in += slot.creator && slot.creator->peekData() ? slot.creator->peekData()->nElements() : 0;
    for (const auto& slot : fragmentsOf(*reduced->CartesianPositions()))
      out += slot.creator->peekData()->nElements();
    return "reduced " + std::to_string(in) + " points to " + std::to_string(out) + " (" +
           Basalt::format("%.1f", in > 0 ? 100.0 * double(out) / double(in) : 0.0) + "%)";
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
    return std::string("ERROR: ") + e.what();
  }
}

} // namespace Quorvel::Files
