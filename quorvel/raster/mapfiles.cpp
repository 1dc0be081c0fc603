// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: mapping a raster onto every grid of a list of bundle files, each file written back in
// place through the library's storage policy.
#include "quorvel/raster/detail/raster.hpp"
#include "quorvel/storage/storage.hpp"

#include "tressel/bundle.hpp"

namespace Quorvel {

namespace {

// Maps every grid of one file and writes the file back when all of them were mapped. False
// when the file stays as it was.
bool mapFile(const std::string& file, const StrongPtr<Grid>& raster,
             const MapRasterOnPointCloudParameterBox& box,
             const StrongPtr<Tressel::StorageTransformations>& policy, Messages& log) {
  auto bundle = std::make_shared<Tressel::Bundle>();
  if (!bundle->bindTo(file)) {
    log.report("ERROR: " + bundle->lastError());
    return false;
  }
  bool complete = true;
  for (const auto& slice : bundle->slices()) {
    std::size_t mapped = 0;
    for (const std::string& name : slice->gridNames()) {
      auto grid = (*slice)[name];
      if (!grid)
        continue;
      ++mapped;
      if (!mapData(grid, raster, box)) {
        log.report("ERROR: map data of grid failed");
        complete = false;
      }
    }
    if (mapped == 0) {
      log.report("ERROR: no grid found");
      complete = false;
    }
  }
  if (!complete)
    return false;
  bundle->setStoragePolicy(policy);
  if (!bundle->save()) {
    log.report("ERROR: " + bundle->lastError());
    return false;
  }
  return true;
}

} // namespace

bool mapData(std::vector<std::string> files, const std::string& rasterFile,
             MapRasterOnPointCloudParameterBox& box) {
  Messages log(detail::RasterTag);
  StrongPtr<Grid> raster;
  if (!prepareRaster(rasterFile, raster, box)) {
    log.report("ERROR: prepareraster failed");
    return false;
  }
  auto policy = std::make_shared<Wexlin::MyStorage>();
  policy->writeSinglePrecision = true;
  policy->numericalShift = true;
  bool all = true;
  for (const std::string& file : files)
    all = mapFile(file, raster, box, policy, log) && all;
  return all;
}

} // namespace Quorvel
