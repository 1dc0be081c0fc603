// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target: raster preparation and mapping on rasters and clouds made from the bytes: sizes
// and fragment sizes, cell types, heights and coordinates taken raw (NaN, infinities, huge
// values), a box whose cell and fragment sizes may contradict the raster, bands and constant
// classes; then the field mapping from the cloud onto the raster.
#include "fuzz/fuzz_input.hpp"

#include "quorvel/raster/raster.hpp"
#include "tressel/bundle.hpp"
#include "tressel/point_cloud.hpp"
#include "tressel/uniform_grid.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <limits>

namespace {

using Vantor::PhysicalSpace::point;

// A double from a short list of awkward values, or raw bytes.
double awkward(FuzzedDataProvider& in) {
  static const double values[] = {0.0,
                                  -1.0,
                                  0.5,
                                  1.0,
                                  2.0,
                                  1e300,
                                  -1e300,
                                  std::numeric_limits<double>::quiet_NaN(),
                                  std::numeric_limits<double>::infinity()};
  if (in.ConsumeBool())
    return in.PickValueInArray(values);
  return in.ConsumeFloatingPoint<double>();
}

Basalt::StrongPtr<Tressel::Grid> rasterOf(FuzzedDataProvider& in, double size) {
  const std::size_t nx = in.ConsumeIntegralInRange<std::size_t>(1, 12);
  const std::size_t ny = in.ConsumeIntegralInRange<std::size_t>(1, 12);
  const std::size_t fx = in.ConsumeIntegralInRange<std::size_t>(1, 6);
  const std::size_t fy = in.ConsumeIntegralInRange<std::size_t>(1, 6);
  Tressel::Bundle bundle;
  auto grid = Tressel::createRegularlyFragmentedGridWithCartesianVertices3D(
      bundle, 0.0, "raster", {(nx + fx - 1) / fx, (ny + fy - 1) / fy, 1}, {fx, fy, 1},
      point(awkward(in), awkward(in), 0.0), Vantor::PhysicalSpace::vector(size, size, 0.0));
  std::vector<unsigned char> types(nx * ny);
  std::vector<float> heights(nx * ny);
  for (std::size_t k = 0; k < types.size(); ++k) {
    types[k] = in.ConsumeIntegralInRange<unsigned char>(0, 5);
    heights[k] = in.ConsumeFloatingPoint<float>();
  }
  Tressel::setUniformCells<unsigned char>(*grid, "CellType", types.data(), nx, ny, 1);
  Tressel::setUniformCells<float>(*grid, "Height", heights.data(), nx, ny, 0.0f);
  return grid;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool quiet = (Quorvel::Fuzz::quietConsole(), true);
  (void)quiet;
  FuzzedDataProvider in(data, size);
  Quorvel::MapRasterOnPointCloudParameterBox box;
  const double cellSize = awkward(in);
  auto raster = rasterOf(in, cellSize);
  Quorvel::takeRasterLayout(*raster, box);
  if (in.ConsumeBool()) { // a box that contradicts the raster
    box.cellsize = {awkward(in), awkward(in), awkward(in)};
    box.rastersize = {in.ConsumeIntegral<std::uint8_t>(), in.ConsumeIntegral<std::uint8_t>(),
                      in.ConsumeIntegral<std::uint8_t>()};
  }
  box.step = in.ConsumeBool();
  box.unclassify = in.ConsumeBool();
  box.height = in.ConsumeBool();
  box.constantclasses = Vantor::MultiRange<double>(in.ConsumeRandomLengthString(8));
  for (int k = in.ConsumeIntegralInRange(0, 3); k > 0; --k)
    box.assignment.push_back({awkward(in), awkward(in), in.ConsumeIntegral<std::uint32_t>()});
  for (int k = in.ConsumeIntegralInRange(0, 2); k > 0; --k)
    box.class_assignment.push_back(
        {in.ConsumeIntegral<std::uint32_t>(), awkward(in), awkward(in), awkward(in), awkward(in)});
  if (!Quorvel::prepareRaster(raster, box))
    return 0;
  std::vector<point> xyz;
  std::vector<unsigned char> classes;
  while (in.remaining_bytes() > 0 && xyz.size() < 64) {
    xyz.emplace_back(awkward(in), awkward(in), awkward(in));
    classes.push_back(in.ConsumeIntegral<unsigned char>());
  }
  auto cloud = Tressel::PointCloudBuilder(xyz)
                   .addField("Classification", classes)
                   .build(Tressel::sequentialPartition(xyz.size(), 16));
  Quorvel::mapData(cloud, raster, box);
  Quorvel::mapSourceToTarget(*cloud, "Classification", *raster, "Mapped", std::fabs(cellSize));
  return 0;
}
