// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the raster kernels of the simple morphological ground filter.
#include "quorvel/terrain/detail/morphology.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Quorvel::detail {

namespace {

// The mean of the cells with a height among the 2 x 2 children of every coarse cell.
HeightGrid coarser(const HeightGrid& fine, int threads) {
  HeightGrid out;
  out.columns = (fine.columns + 1) / 2;
  out.rows = (fine.rows + 1) / 2;
  out.cell = fine.cell * 2;
  out.z.assign(out.columns * out.rows, std::numeric_limits<float>::quiet_NaN());
  forEachRow(out, threads, [&](std::size_t j) {
    for (std::size_t i = 0; i < out.columns; ++i) {
      double sum = 0;
      int count = 0;
      for (std::size_t dj = 0; dj < 2; ++dj)
        for (std::size_t di = 0; di < 2; ++di) {
          const std::size_t fi = 2 * i + di, fj = 2 * j + dj;
          if (fi < fine.columns && fj < fine.rows && !std::isnan(fine.at(fi, fj))) {
            sum += fine.at(fi, fj);
            ++count;
          }
        }
      if (count > 0)
        out.at(i, j) = static_cast<float>(sum / count);
    }
  });
  return out;
}

// The running extreme of one line of n values (stride apart) over a window of 2 * r + 1, the
// window clipped at the line's ends: out[i] = op over in[i - r .. i + r]. g and h are scratch.
template <class Op>
void runningExtreme(float* line, std::size_t stride, std::size_t n, std::size_t r, float identity,
                    Op op, std::vector<float>& g, std::vector<float>& h) {
  const std::size_t k = 2 * r + 1, m = n + 2 * r;
  g.resize(m);
  h.resize(m);
  const auto padded = [&](std::size_t j) {
    return j < r || j >= n + r ? identity : line[(j - r) * stride];
  };
  for (std::size_t j = 0; j < m; ++j)
    g[j] = j % k == 0 ? padded(j) : op(g[j - 1], padded(j));
  for (std::size_t j = m; j-- > 0;)
    h[j] = (j + 1) % k == 0 || j + 1 == m ? padded(j) : op(h[j + 1], padded(j));
  for (std::size_t i = 0; i < n; ++i)
    line[i * stride] = op(h[i], g[i + 2 * r]);
}

// One erosion (op min) or dilation (op max) with a square window, rows then columns, each line
// alone: blocks of rows, then of columns, on the threads.
template <class Op>
void squarePass(HeightGrid& grid, std::size_t r, float identity, Op op, int threads) {
  inStaticBlocks(grid.rows, threads, [&](std::size_t begin, std::size_t end) {
    std::vector<float> g, h;
    for (std::size_t j = begin; j < end; ++j)
      runningExtreme(&grid.z[j * grid.columns], 1, grid.columns, r, identity, op, g, h);
  });
  inStaticBlocks(grid.columns, threads, [&](std::size_t begin, std::size_t end) {
    std::vector<float> g, h;
    for (std::size_t i = begin; i < end; ++i)
      runningExtreme(&grid.z[i], grid.columns, grid.rows, r, identity, op, g, h);
  });
}

// The difference of two heights of a line, over the distance between them, or 0 when they are
// the same cell.
double rise(float low, float high, double run) {
  return run > 0 ? (static_cast<double>(high) - low) / run : 0.0;
}

} // namespace

bool fillHoles(HeightGrid& grid, int threads) {
  const bool holes =
      std::any_of(grid.z.begin(), grid.z.end(), [](float v) { return std::isnan(v); });
  if (!holes)
    return true;
  if (grid.columns <= 1 && grid.rows <= 1)
    return false; // a single cell without a height: nothing to fill from
  HeightGrid coarse = coarser(grid, threads);
  if (!fillHoles(coarse, threads))
    return false;
  forEachRow(grid, threads, [&](std::size_t j) {
    for (std::size_t i = 0; i < grid.columns; ++i)
      if (std::isnan(grid.at(i, j)))
        grid.at(i, j) = bilinear(coarse, (static_cast<double>(i) + 0.5) * grid.cell,
                                 (static_cast<double>(j) + 0.5) * grid.cell);
  });
  return true;
}

void openSquare(HeightGrid& grid, std::size_t radius, int threads) {
  constexpr float Inf = std::numeric_limits<float>::infinity();
  squarePass(
      grid, radius, Inf, [](float a, float b) { return std::min(a, b); }, threads);
  squarePass(
      grid, radius, -Inf, [](float a, float b) { return std::max(a, b); }, threads);
}

std::vector<std::uint8_t> progressiveObjects(const HeightGrid& grid, double slope,
                                             std::size_t maxRadius, int threads) {
  std::vector<std::uint8_t> objects(grid.z.size(), 0);
  HeightGrid last = grid, opened;
  for (std::size_t r = 1; r <= maxRadius; ++r) {
    // Each opening is of the surface itself: opening the last opening again would lower a
    // ramp at the grid's edge (where windows are clipped) a little more every time, until
    // the ground there stands out as an object.
    opened = grid;
    openSquare(opened, r, threads);
    const double threshold = slope * static_cast<double>(r) * grid.cell;
    forEachRow(grid, threads, [&](std::size_t j) {
      for (std::size_t k = j * grid.columns; k < (j + 1) * grid.columns; ++k)
        if (static_cast<double>(last.z[k]) - opened.z[k] > threshold)
          objects[k] = 1;
    });
    last.z = opened.z;
  }
  return objects;
}

HeightGrid slopeOf(const HeightGrid& grid, int threads) {
  HeightGrid out = grid;
  forEachRow(grid, threads, [&](std::size_t j) {
    for (std::size_t i = 0; i < grid.columns; ++i) {
      const std::size_t i0 = i > 0 ? i - 1 : i, i1 = std::min(i + 1, grid.columns - 1);
      const std::size_t j0 = j > 0 ? j - 1 : j, j1 = std::min(j + 1, grid.rows - 1);
      const double gx =
          rise(grid.at(i0, j), grid.at(i1, j), static_cast<double>(i1 - i0) * grid.cell);
      const double gy =
          rise(grid.at(i, j0), grid.at(i, j1), static_cast<double>(j1 - j0) * grid.cell);
      out.at(i, j) = static_cast<float>(std::hypot(gx, gy));
    }
  });
  return out;
}

float bilinear(const HeightGrid& grid, double x, double y) {
  const double maxI = static_cast<double>(grid.columns - 1),
               maxJ = static_cast<double>(grid.rows - 1);
  const double u = std::clamp(x / grid.cell - 0.5, 0.0, maxI);
  const double v = std::clamp(y / grid.cell - 0.5, 0.0, maxJ);
  const auto i = static_cast<std::size_t>(std::min(std::floor(u), std::max(maxI - 1, 0.0)));
  const auto j = static_cast<std::size_t>(std::min(std::floor(v), std::max(maxJ - 1, 0.0)));
  const std::size_t i1 = std::min(i + 1, grid.columns - 1), j1 = std::min(j + 1, grid.rows - 1);
  const double fu = u - static_cast<double>(i), fv = v - static_cast<double>(j);
  const double low = grid.at(i, j) * (1 - fu) + grid.at(i1, j) * fu;
  const double high = grid.at(i, j1) * (1 - fu) + grid.at(i1, j1) * fu;
  return static_cast<float>(low * (1 - fv) + high * fv);
}

} // namespace Quorvel::detail
