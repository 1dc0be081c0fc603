// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: rasters of a catalogue's chunks: each cut to its chunk, and a GDAL VRT mosaic over
// them all.
#include "io/detail/gdal.hpp"
#include "io/detail/raster.hpp"

#include "basalt/replacing_file.hpp"

#include <cpl_conv.h>
#include <cpl_error.h>
#include <cpl_string.h>
#include <gdal.h>
#include <gdal_priv.h>
#include <gdal_utils.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

namespace Quorvel::Raster {

namespace {

using detail::Dataset;

// "<path>: <what>", with GDAL's message where it has one.
[[noreturn]] void fail(const std::string& path, const std::string& what) {
  const std::string gdal = detail::gdalError("");
  detail::fail(path, gdal.empty() ? what : what + ": " + gdal);
}

Dataset owned(GDALDatasetH handle) {
  return Dataset(GDALDataset::FromHandle(handle));
}

struct ListFree {
  void operator()(char** list) const { CSLDestroy(list); }
};
using Arguments = std::unique_ptr<char*, ListFree>;

Arguments arguments(const std::vector<std::string>& values) {
  char** list = nullptr;
  for (const std::string& v : values)
    list = CSLAddString(list, v.c_str());
  return Arguments(list);
}

// The first and one past the last cell along an axis of cells of size from edge that overlap
// [lo, hi] by more than a touch (at least one), within count cells. Values on a cell edge up to
// rounding count as on it, so that a square aligned with the cells takes exactly its own.
std::pair<long, long> cellsOverlapping(double edge, double size, double lo, double hi, long count) {
  constexpr double Touch = 1e-9;
  const long first = static_cast<long>(std::floor((lo - edge) / size + Touch));
  const long last = std::max(static_cast<long>(std::ceil((hi - edge) / size - Touch)), first + 1);
  return {std::clamp(first, 0L, count), std::clamp(last, 0L, count)};
}

// Runs GDALTranslate or GDALBuildVRT into a file beside path, renamed over it when complete.
template <class Make>
void replacing(const std::string& path, Make make) {
  try {
    Basalt::ReplacingFile file(path);
    CPLErrorReset();
    Dataset out = owned(make(file.temporary()));
    if (!out)
      fail(path, "cannot write it");
    out.reset();
    if (CPLGetLastErrorType() >= CE_Failure)
      fail(path, "cannot write it");
    file.commit();
  } catch (const Basalt::ReplacingFile::Error& e) {
    throw Las::Error(e.what());
  }
}

} // namespace

namespace Gdal {

bool cutGeoTiff(const std::string& from, const std::string& to, const std::array<double, 4>& area) {
  detail::registerDrivers();
  const Dataset in = owned(GDALOpen(from.c_str(), GA_ReadOnly));
  if (!in)
    fail(from, "not a raster GDAL can read");
  double t[6];
  if (in->GetGeoTransform(t) != CE_None || t[2] != 0 || t[4] != 0 || t[5] >= 0)
    fail(from, "not a north-up raster");
  const auto [i0, i1] = cellsOverlapping(t[0], t[1], area[0], area[2], in->GetRasterXSize());
  // Rows count down from the top edge.
  const auto [r0, r1] = cellsOverlapping(-t[3], -t[5], -area[3], -area[1], in->GetRasterYSize());
  if (i1 <= i0 || r1 <= r0)
    return false;
  const Arguments args = arguments({"-of", "GTiff", "-co", "COMPRESS=DEFLATE", "-co", "PREDICTOR=3",
                                    "-srcwin", std::to_string(i0), std::to_string(r0),
                                    std::to_string(i1 - i0), std::to_string(r1 - r0)});
  GDALTranslateOptions* options = GDALTranslateOptionsNew(args.get(), nullptr);
  try {
    replacing(to, [&](const std::string& temporary) {
      return GDALTranslate(temporary.c_str(), GDALDataset::ToHandle(in.get()), options, nullptr);
    });
  } catch (...) {
    GDALTranslateOptionsFree(options);
    throw;
  }
  GDALTranslateOptionsFree(options);
  return true;
}

void writeMosaic(const std::string& path, const std::vector<std::string>& files) {
  detail::registerDrivers();
  if (files.empty())
    throw Las::Error(path + ": a mosaic needs at least one raster");
  std::vector<const char*> names;
  for (const std::string& f : files)
    names.push_back(f.c_str());
  GDALBuildVRTOptions* options = GDALBuildVRTOptionsNew(nullptr, nullptr);
  replacing(path, [&](const std::string& temporary) {
    return GDALBuildVRT(temporary.c_str(), static_cast<int>(names.size()), nullptr, names.data(),
                        options, nullptr);
  });
  GDALBuildVRTOptionsFree(options);
}

} // namespace Gdal

} // namespace Quorvel::Raster
