// Quorvel framework, data model: regularly fragmented uniform grids.
#include "tressel/UniformGrid.hpp"

#include "tressel/BoundingBoxes.hpp"

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

StrongPtr<Grid> createRegularlyFragmentedGridWithCartesianVertices3D(
    Bundle& bundle, double time, const std::string& gridName, const MultiIndex<3>& fragments,
    const MultiIndex<3>& cells, const point& origin,
    const Vantor::PhysicalSpace::vector& cellSize) {
  auto grid = std::make_shared<Grid>(gridName);
  auto rep = grid->makeCartesianRepresentation(3, StandardCartesianChart3D);
  auto layout = std::make_shared<FragmentIDCollection>();
  auto positions =
      rep->makeField(rep->makeFieldID(PositionsFieldName), layout, &TresselType<point>(), 3);
  for (std::size_t c = 0; c < fragments[2]; ++c)
    for (std::size_t b = 0; b < fragments[1]; ++b)
      for (std::size_t a = 0; a < fragments[0]; ++a) {
        auto id = layout->makeFragmentID("fragment_" + std::to_string(a) + "_" + std::to_string(b) +
                                         "_" + std::to_string(c));
        auto xyz = std::make_shared<MemArray<3, point>>(cells);
        auto view = xyz->view();
        for (std::size_t k = 0; k < cells[2]; ++k)
          for (std::size_t j = 0; j < cells[1]; ++j)
            for (std::size_t i = 0; i < cells[0]; ++i)
              view(i, j, k) = point{origin.x + static_cast<double>(a * cells[0] + i) * cellSize.x,
                                    origin.y + static_cast<double>(b * cells[1] + j) * cellSize.y,
                                    origin.z + static_cast<double>(c * cells[2] + k) * cellSize.z};
        auto creator = positions->setPersistentData(xyz, id);
        StrongPtr<BoundingBox> box;
        ExpandBBox(box, creator, BBoxStore);
      }
  setTriple<double>(*grid, "UniformOrigin", origin.x, origin.y, origin.z);
  setTriple<double>(*grid, "UniformCellSize", cellSize.x, cellSize.y, cellSize.z);
  setTriple<unsigned long long>(*grid, "UniformCellsPerFragment", cells[0], cells[1], cells[2]);
  setTriple<unsigned long long>(*grid, "UniformFragments", fragments[0], fragments[1],
                                fragments[2]);
  bundle[time]->setGrid(gridName, grid);
  return grid;
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
  return view;
}

} // namespace Tressel
