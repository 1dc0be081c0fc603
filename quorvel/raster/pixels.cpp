// Quorvel: raster grids made from row-major pixels, with their attributes.
#include "quorvel/raster/detail/pixels.hpp"

#include "basalt/Chunk.hpp"
#include "tressel/Bundle.hpp"
#include "tressel/UniformGrid.hpp"

#include <algorithm>
#include <limits>

namespace Quorvel::Raster::detail {

namespace {

template <class T>
void putValue(Tressel::Grid& grid, const char* name, T value) {
  grid.attributes().setAttribute(name, std::make_shared<Basalt::Chunk<T>>(std::vector<T>{value}));
}

void putText(Tressel::Grid& grid, const char* name, const std::string& text) {
  grid.attributes().setAttribute(name, std::make_shared<Basalt::Chunk<std::uint8_t>>(
                                           std::vector<std::uint8_t>(text.begin(), text.end())));
}

} // namespace

Basalt::StrongPtr<Tressel::Grid> gridOf(const Pixels& pixels, std::size_t fragmentCells,
                                        const std::string& heightField) {
  const std::size_t cx = std::max<std::size_t>(1, std::min(fragmentCells, pixels.columns));
  const std::size_t cy = std::max<std::size_t>(1, std::min(fragmentCells, pixels.rows));
  Tressel::Bundle bundle;
  auto grid = Tressel::createRegularlyFragmentedGridWithCartesianVertices3D(
      bundle, 0.0, "raster", {(pixels.columns + cx - 1) / cx, (pixels.rows + cy - 1) / cy, 1},
      {cx, cy, 1}, Vantor::PhysicalSpace::point(pixels.x0, pixels.y0, 0.0),
      Vantor::PhysicalSpace::vector(pixels.sizeX, pixels.sizeY, 0.0));
  Tressel::setUniformCells<std::uint8_t>(*grid, "CellType", pixels.types.data(), pixels.columns,
                                         pixels.rows, NoData);
  Tressel::setUniformCells<float>(*grid, heightField, pixels.heights.data(), pixels.columns,
                                  pixels.rows, std::numeric_limits<float>::quiet_NaN());
  putValue<unsigned long long>(*grid, "RasterColumns", pixels.columns);
  putValue<unsigned long long>(*grid, "RasterRows", pixels.rows);
  putText(*grid, "CoordinateSystem", pixels.coordinateSystem);
  return grid;
}

} // namespace Quorvel::Raster::detail
