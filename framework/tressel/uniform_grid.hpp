// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: regularly fragmented uniform 3-D grids (rasters).
#pragma once

#include "tressel/bundle.hpp"
#include "tressel/mem_array.hpp"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace Tressel {

// The layout of a uniform grid split into blocks: vertex (i, j, k) of the whole grid lies at
// origin + (i, j, k) * cellSize; fragment (a, b, c) holds the vertices a * cells[0] ... on each
// axis, cells[0] x cells[1] x cells[2] of them, as a MemArray<3, point> of "Positions", except
// that the last fragment of an axis holds only the vertices up to total on that axis (so that a
// raster has exactly one cell per pixel whatever the fragment size).
// Fragment (a, b, c) is number a + fragments[0] * (b + fragments[1] * c).
struct UniformGridView {
  Vantor::PhysicalSpace::point origin;
  Vantor::PhysicalSpace::vector cellSize;
  MultiIndex<3> cells;     // vertices per fragment and axis (the last fragments may hold fewer)
  MultiIndex<3> fragments; // fragments per axis
  MultiIndex<3> total;     // vertices of the whole grid per axis

  // The vertices of fragment (a, b, c) per axis.
  MultiIndex<3> fragmentCells(std::size_t a, std::size_t b, std::size_t c) const {
    const std::size_t at[3] = {a, b, c};
    MultiIndex<3> n = cells;
    for (int k = 0; k < 3; ++k)
      n[k] = std::min(cells[k], total[k] - std::min(total[k], at[k] * cells[k]));
    return n;
  }

  std::size_t fragmentNumber(std::size_t a, std::size_t b, std::size_t c) const {
    return a + fragments[0] * (b + fragments[1] * c);
  }
};

// Creates the grid gridName in the bundle's slice of that time: the chart
// "StandardCartesianChart3D", the vertices' "Positions" in fragments as the view says, and the
// view itself as grid attributes (so it is saved and loaded with the grid). Every fragment holds
// cellsPerFragment vertices (total = fragments * cellsPerFragment).
StrongPtr<Grid> createRegularlyFragmentedGridWithCartesianVertices3D(
    Bundle& bundle, double time, const std::string& gridName, const MultiIndex<3>& fragments,
    const MultiIndex<3>& cellsPerFragment, const Vantor::PhysicalSpace::point& origin,
    const Vantor::PhysicalSpace::vector& cellSize);
// The same for a grid of total vertices per axis, in as many fragments of at most
// cellsPerFragment as it takes; the last fragment of an axis holds the remainder.
StrongPtr<Grid> createUniformGrid3D(Bundle& bundle, double time, const std::string& gridName,
                                    const MultiIndex<3>& total,
                                    const MultiIndex<3>& cellsPerFragment,
                                    const Vantor::PhysicalSpace::point& origin,
                                    const Vantor::PhysicalSpace::vector& cellSize);

// The uniform layout of a grid made as above (also after a save and load; a grid saved without
// its total has fragments * cells); empty for any other grid.
std::optional<UniformGridView> uniformGridView(const Grid& grid);

// Sets the per-vertex field name of a grid made as above (one layer of cells) from row-major
// values: cell (i, j) of the whole grid takes values[j * nx + i] for i < nx and j < ny, and pad
// beyond (the cells of the whole grid past nx or ny). One 3-D array per fragment, attached as
// persistent data. Throws std::invalid_argument when the grid is not uniform, has more than one
// layer, is smaller than nx x ny, or holds a field of that name with another element type.
template <class T>
void setUniformCells(Grid& grid, const std::string& name, const T* values, std::size_t nx,
                     std::size_t ny, T pad);

// The per-vertex field name of such a grid as row-major values over the whole grid (total[0] x
// total[1]). Throws std::invalid_argument when the grid is not
// uniform, has more than one layer, or a fragment holds no array of T of the fragment's size.
template <class T>
std::vector<T> uniformCells(const Grid& grid, const std::string& name);

} // namespace Tressel
