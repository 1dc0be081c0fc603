// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: a value per pixel folded from the points a raster takes (a count, the highest or the
// lowest z), on several threads with the cells one thread would make.
#pragma once

#include "quorvel/core/parallel.hpp"
#include "quorvel/raster/detail/points.hpp"

#include <algorithm>
#include <utility>
#include <vector>

namespace Quorvel::Raster::detail {

// Folds the points of [begin, end) (an index over the spans one after another) into cells:
// add(cells[k], z) for each point taken, z its height as a float. The pixels of a block are
// gathered first, so that each cell is fetched ahead of its update wherever the points lie.
template <class T, class Add>
void foldBlock(const PointFilter& filter, const std::vector<PointFilter::Span>& spans,
               std::size_t begin, std::size_t end, const Pixels& p, T* cells, const Add& add) {
  constexpr std::size_t Batch = 4096, Ahead = 32;
  std::vector<std::pair<std::size_t, float>> batch;
  batch.reserve(Batch);
  const auto apply = [&] {
    for (std::size_t k = 0; k < batch.size(); ++k) {
      if (k + Ahead < batch.size())
        __builtin_prefetch(cells + batch[k + Ahead].first, 1);
      add(cells[batch[k].first], batch[k].second);
    }
    batch.clear();
  };
  std::size_t offset = 0;
  for (const PointFilter::Span& s : spans) {
    const std::size_t from = std::max(begin, offset), to = std::min(end, offset + s.size());
    if (from < to)
      filter.forEachIn(s, from - offset, to - offset, [&](const point& q) {
        std::size_t at = 0;
        // A stored box that a point lies outside of (a changed cloud) must not move it off.
        if (pixelOf(p, q, at))
          batch.emplace_back(at, static_cast<float>(q.z));
        if (batch.size() == Batch)
          apply();
      });
    offset += s.size();
  }
  apply();
}

// A value per pixel of p: `empty` folded with every point that the filter takes in the pixel,
// add(cell, z) in the cloud's order, by blocks of points on `threads` threads merged in block
// order (foldInBlocks: with add and merge that keep the earlier of equal values, the cells of one
// thread, bit for bit).
template <class T, class Add, class Merge>
std::vector<T> foldPerCell(const Tressel::Grid& cloud, const PointFilter& filter, const Pixels& p,
                           T empty, int threads, const Add& add, const Merge& merge) {
  const auto spans = filter.spansOf(cloud);
  std::size_t n = 0;
  for (const PointFilter::Span& s : spans)
    n += s.size();
  return foldInBlocks(
      n, p.columns * p.rows, empty, threads,
      [&](T* cells, std::size_t begin, std::size_t end) {
        foldBlock(filter, spans, begin, end, p, cells, add);
      },
      merge);
}

} // namespace Quorvel::Raster::detail
