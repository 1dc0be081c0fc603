// SPDX-License-Identifier: BSD-3-Clause
// Quorvel, terrain: the raster kernels of the simple morphological ground filter (Pingel, Clarke
// and McBride 2013): a grid of heights, hole filling, grey-scale opening with a square window,
// the progressive opening that marks objects, and bilinear reads. They work on plain arrays so
// that they can be tested without a cloud. Each runs on `threads` threads, over rows or columns
// that are computed alone, so that no result depends on the thread count.
#pragma once

#include "quorvel/core/parallel.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quorvel::detail {

// Heights on a regular grid, row-major from the lowest y: cell (i, j) at j * columns + i, its
// centre at ((i + 0.5) * cell, (j + 0.5) * cell) in the grid's own coordinates (x and y minus
// the grid's origin). NaN marks a cell without a height.
struct HeightGrid {
  std::size_t columns = 0, rows = 0;
  double cell = 1.0;
  std::vector<float> z;

  float& at(std::size_t i, std::size_t j) { return z[j * columns + i]; }
  float at(std::size_t i, std::size_t j) const { return z[j * columns + i]; }
};

// body(j) for every row j of grid, the rows in blocks of their own on `threads` threads.
template <class Body>
void forEachRow(const HeightGrid& grid, int threads, const Body& body) {
  inStaticBlocks(grid.rows, threads, [&](std::size_t begin, std::size_t end) {
    for (std::size_t j = begin; j < end; ++j)
      body(j);
  });
}

// Fills every NaN cell by push-pull: the grid is averaged 2 x 2 into coarser grids (over the
// cells with a height) until one holds no hole, and each hole then takes the bilinear value of
// the next coarser grid. Known cells keep their heights. A grid without any height is left as
// it is; returns false then.
bool fillHoles(HeightGrid& grid, int threads = 1);

// Grey-scale opening (erosion, then dilation) with a square window of (2 * radius + 1) cells
// per side, clipped at the grid's edges; the grid must have no NaN. Each pass is the van Herk /
// Gil-Werman running extreme, so the cost does not grow with the radius.
void openSquare(HeightGrid& grid, std::size_t radius, int threads = 1);

// Progressive opening: the grid is opened with windows of radius 1 to maxRadius cells; a cell
// whose height drops by more than slope * radius * cell from one radius's opening to the next
// (the first compared with the grid) is an object (1 in the result). The grid must have no NaN.
std::vector<std::uint8_t> progressiveObjects(const HeightGrid& grid, double slope,
                                             std::size_t maxRadius, int threads = 1);

// Gradient magnitude (rise over run) of every cell by central differences, one-sided at the
// edges; 0 for a grid one cell wide in that direction. The grid must have no NaN.
HeightGrid slopeOf(const HeightGrid& grid, int threads = 1);

// The bilinear value at (x, y) in the grid's coordinates between cell centres; points beyond
// the outermost centres take the edge value.
float bilinear(const HeightGrid& grid, double x, double y);

} // namespace Quorvel::detail
