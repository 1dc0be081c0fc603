// Quorvel: point-cloud files of either kind, and thinned clouds written to them.
#include "io/files.hpp"

#include "basalt/Text.hpp"
#include "quorvel/core/core.hpp"
#include "quorvel/features/features.hpp"
#include "tressel/Bundle.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <initializer_list>

namespace Quorvel::Files {

namespace {

// Whether the path ends in one of extensions (lower case), in any case.
bool hasExtension(const std::string& path, std::initializer_list<const char*> extensions) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return std::find(extensions.begin(), extensions.end(), extension) != extensions.end();
}

} // namespace

bool isBundle(const std::string& path) {
  return hasExtension(path, {".h5", ".hdf5"});
}

bool isCloudFile(const std::string& path) {
  return hasExtension(path, {".las", ".laz", ".h5", ".hdf5"});
}

bool isLaz(const std::string& path) {
  return hasExtension(path, {".laz"});
}

bool isGeoTiff(const std::string& path) {
  return hasExtension(path, {".tif", ".tiff"});
}

Basalt::StrongPtr<Tressel::Grid> load(const std::string& path, std::size_t fragmentPoints,
                                      const Basalt::StrongPtr<Basalt::LoaderProgress>& progress,
                                      const std::set<std::string>& only, const Las::Warn& warn) {
  if (!isBundle(path))
    return Las::read(path, fragmentPoints, progress, only, warn).grid;
  Tressel::Bundle bundle;
  if (!bundle.bindTo(path))
    throw Las::Error(bundle.lastError());
  const auto ids = bundle.getGridIdentifiers();
  if (ids.empty())
    throw Las::Error(path + ": the bundle holds no grid");
  return (*bundle.findSlice(ids.front().time))[ids.front().grid];
}

void save(const std::string& path, const Basalt::StrongPtr<Tressel::Grid>& grid,
          const Las::WriteOptions& options,
          const Basalt::StrongPtr<Basalt::LoaderProgress>& progress) {
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
