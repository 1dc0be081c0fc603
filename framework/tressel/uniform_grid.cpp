// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: regularly fragmented uniform grids.
#include "tressel/uniform_grid.hpp"

#include "tressel/bounding_boxes.hpp"

#include <algorithm>
#include <stdexcept>

namespace Tressel {

using Vantor::PhysicalSpace::point;

namespace {

template <class T>
void setTriple(Grid& grid, const char* name, T a, T b, T c) {
  grid.attributes().setAttribute(
      name, std::make_shared<Basalt::Chunk<T>>(std::initializer_list<T>{a, b, c}));
}

template <class T>
bool getTriple(const Grid& grid, const char* name, T out[3]) {
  auto chunk = Basalt::chunkCast<T>(grid.attributes().getAttribute(name));
  if (!chunk || chunk->size() != 3)
    return false;
  for (int k = 0; k < 3; ++k)
    out[k] = (*chunk)[static_cast<std::size_t>(k)];
  return true;
}

} // namespace

namespace {

StrongPtr<Grid> makeUniformGrid(Bundle& bundle, double time, const std::string& gridName,
                                const UniformGridView& view) {
  const MultiIndex<3>& cells = view.cells;
  const point& origin = view.origin;
  const Vantor::PhysicalSpace::vector& cellSize = view.cellSize;
  auto grid = std::make_shared<Grid>(gridName);
  auto rep = grid->makeCartesianRepresentation(3, StandardCartesianChart3D);
  auto layout = std::make_shared<FragmentIDCollection>();
  auto positions =
      rep->makeField(rep->makeFieldID(PositionsFieldName), layout, &TresselType<point>(), 3);
  for (std::size_t c = 0; c < view.fragments[2]; ++c)
    for (std::size_t b = 0; b < view.fragments[1]; ++b)
      for (std::size_t a = 0; a < view.fragments[0]; ++a) {
        auto id = layout->makeFragmentID("fragment_" + std::to_string(a) + "_" + std::to_string(b) +
                                         "_" + std::to_string(c));
        const MultiIndex<3> n = view.fragmentCells(a, b, c);
        auto xyz = std::make_shared<MemArray<3, point>>(n);
        auto xyzView = xyz->view();
        const auto at = [&](std::size_t i, std::size_t j, std::size_t k) {
          return point{origin.x + static_cast<double>(a * cells[0] + i) * cellSize.x,
                       origin.y + static_cast<double>(b * cells[1] + j) * cellSize.y,
                       origin.z + static_cast<double>(c * cells[2] + k) * cellSize.z};
        };
        for (std::size_t k = 0; k < n[2]; ++k)
          for (std::size_t j = 0; j < n[1]; ++j)
            for (std::size_t i = 0; i < n[0]; ++i)
              xyzView(i, j, k) = at(i, j, k);
        auto creator = positions->setPersistentData(xyz, id);
        // Every coordinate grows (or falls) with its index: the first and the last cell bound
        // the fragment, exactly as a scan of its cells would.
        if (n[0] > 0 && n[1] > 0 && n[2] > 0) {
          BoundingBox box;
          box.expand(at(0, 0, 0));
          box.expand(at(n[0] - 1, n[1] - 1, n[2] - 1));
          setFragmentBBox(creator, box);
        }
      }
  setTriple<double>(*grid, "UniformOrigin", origin.x, origin.y, origin.z);
  setTriple<double>(*grid, "UniformCellSize", cellSize.x, cellSize.y, cellSize.z);
  setTriple<unsigned long long>(*grid, "UniformCellsPerFragment", cells[0], cells[1], cells[2]);
  setTriple<unsigned long long>(*grid, "UniformFragments", view.fragments[0], view.fragments[1],
                                view.fragments[2]);
  setTriple<unsigned long long>(*grid, "UniformTotalCells", view.total[0], view.total[1],
                                view.total[2]);
  bundle[time]->setGrid(gridName, grid);
  return grid;
}

} // namespace

StrongPtr<Grid> createUniformGrid3D(Bundle& bundle, double time, const std::string& gridName,
                                    const MultiIndex<3>& total, const MultiIndex<3>& cells,
                                    const point& origin,
                                    const Vantor::PhysicalSpace::vector& cellSize) {
  UniformGridView view{origin, cellSize, cells, {}, total};
  for (int k = 0; k < 3; ++k)
    view.fragments[k] = cells[k] == 0 ? 0 : (total[k] + cells[k] - 1) / cells[k];
  return makeUniformGrid(bundle, time, gridName, view);
}

StrongPtr<Grid> createRegularlyFragmentedGridWithCartesianVertices3D(
    Bundle& bundle, double time, const std::string& gridName, const MultiIndex<3>& fragments,
    const MultiIndex<3>& cells, const point& origin,
    const Vantor::PhysicalSpace::vector& cellSize) {
  const MultiIndex<3> total(fragments[0] * cells[0], fragments[1] * cells[1],
                            fragments[2] * cells[2]);
  return makeUniformGrid(bundle, time, gridName, {origin, cellSize, cells, fragments, total});
}

std::optional<UniformGridView> uniformGridView(const Grid& grid) {
  double origin[3], cellSize[3];
  unsigned long long cells[3], fragments[3];
  if (!getTriple(grid, "UniformOrigin", origin) || !getTriple(grid, "UniformCellSize", cellSize) ||
      !getTriple(grid, "UniformCellsPerFragment", cells) ||
      !getTriple(grid, "UniformFragments", fragments))
    return std::nullopt;
  UniformGridView view;
  view.origin = point(origin[0], origin[1], origin[2]);
  view.cellSize = Vantor::PhysicalSpace::vector(cellSize[0], cellSize[1], cellSize[2]);
  view.cells = MultiIndex<3>(cells[0], cells[1], cells[2]);
  view.fragments = MultiIndex<3>(fragments[0], fragments[1], fragments[2]);
  unsigned long long total[3];
  if (getTriple(grid, "UniformTotalCells", total))
    view.total = MultiIndex<3>(total[0], total[1], total[2]);
  else
    view.total =
        MultiIndex<3>(cells[0] * fragments[0], cells[1] * fragments[1], cells[2] * fragments[2]);
  return view;
}

namespace {

// The layout of a one-layer uniform grid; throws when there is none.
UniformGridView oneLayer(const Grid& grid, const std::string& name) {
  const auto view = uniformGridView(grid);
  if (!view || view->cells[2] != 1 || view->fragments[2] != 1)
    throw std::invalid_argument("field \"" + name +
                                "\": the grid is not a uniform grid of one layer of cells");
  return *view;
}

// Calls f(fragment number, fragment's first column, first row, its cells) for every fragment.
template <class F>
void forEachFragmentOf(const UniformGridView& view, F&& f) {
  for (std::size_t b = 0; b < view.fragments[1]; ++b)
    for (std::size_t a = 0; a < view.fragments[0]; ++a)
      f(view.fragmentNumber(a, b, 0), a * view.cells[0], b * view.cells[1],
        view.fragmentCells(a, b, 0));
}

} // namespace

template <class T>
void setUniformCells(Grid& grid, const std::string& name, const T* values, std::size_t nx,
                     std::size_t ny, T pad) {
  const UniformGridView view = oneLayer(grid, name);
  if (nx > view.total[0] || ny > view.total[1])
    throw std::invalid_argument("field \"" + name + "\": " + std::to_string(nx) + " x " +
                                std::to_string(ny) + " cells do not fit the grid");
  auto rep = grid.getCartesianRepresentation(StandardCartesianChart3D);
  auto field =
      rep ? rep->makeField(rep->makeFieldID(name), rep->fragmentLayout(), &TresselType<T>(), 3)
          : nullptr;
  if (!field)
    throw std::invalid_argument("field \"" + name + "\" exists with another element type");
  forEachFragmentOf(view, [&](std::size_t number, std::size_t x0, std::size_t y0,
                              const MultiIndex<3>& n) {
    Basalt::ArrayVector<T> cells(n.product(), pad);
    for (std::size_t j = 0; j < n[1] && y0 + j < ny; ++j)
      for (std::size_t i = 0; i < n[0] && x0 + i < nx; ++i)
        cells[j * n[0] + i] = values[(y0 + j) * nx + x0 + i];
    field->setPersistentData(std::make_shared<MemArray<3, T>>(n, std::move(cells)),
                             rep->fragmentLayout()->findFragmentID(static_cast<unsigned>(number)));
  });
}

template <class T>
std::vector<T> uniformCells(const Grid& grid, const std::string& name) {
  const UniformGridView view = oneLayer(grid, name);
  auto rep = grid.getCartesianRepresentation(StandardCartesianChart3D);
  auto field = rep ? rep->findField(name) : nullptr;
  if (!field)
    throw std::invalid_argument("no field \"" + name + "\"");
  const std::size_t width = view.total[0];
  std::vector<T> out(width * view.total[1]);
  forEachFragmentOf(
      view, [&](std::size_t number, std::size_t x0, std::size_t y0, const MultiIndex<3>& n) {
        auto id = rep->fragmentLayout()->findFragmentID(static_cast<unsigned>(number));
        auto cells = id ? arrayCast<3, T>(field->getData(id)) : nullptr;
        if (!cells || cells->size() != n.product())
          throw std::invalid_argument("field \"" + name + "\": a fragment holds no cells of " +
                                      TresselType<T>().name());
        for (std::size_t j = 0; j < n[1]; ++j)
          std::copy_n(cells->data() + j * n[0], n[0], out.data() + (y0 + j) * width + x0);
      });
  return out;
}

#define QUORVEL_UNIFORM_CELLS(T)                                                                   \
  template void setUniformCells<T>(Grid&, const std::string&, const T*, std::size_t, std::size_t,  \
                                   T);                                                             \
  template std::vector<T> uniformCells<T>(const Grid&, const std::string&);
QUORVEL_UNIFORM_CELLS(unsigned char)
QUORVEL_UNIFORM_CELLS(float)
QUORVEL_UNIFORM_CELLS(double)
QUORVEL_UNIFORM_CELLS(Vantor::PhysicalSpace::vector)
#undef QUORVEL_UNIFORM_CELLS

} // namespace Tressel
