// SPDX-License-Identifier: BSD-3-Clause
// Quorvel, terrain: filling the cell grid of the square neighbourhoods.
#include "quorvel/terrain/detail/square_index.hpp"

namespace Quorvel::detail {

std::size_t SquareIndex::cell(double v, double min, std::size_t n) const {
  const double c = (v - min) * scale_;
  const double last = static_cast<double>(n - 1);
  return static_cast<std::size_t>(c > 0 ? (c < last ? c : last) : 0.0);
}

// A counting sort of the taken points into their cells, stable, so that the entries of a cell
// keep the points' order.
void SquareIndex::place(const std::vector<std::size_t>& taken,
                        const Tressel::MultiArray<1, const point>& positions) {
  const std::size_t cells = nx_ * ny_;
  std::vector<std::size_t> cellOf(taken.size());
  start_.assign(cells + 1, 0);
  for (std::size_t k = 0; k < taken.size(); ++k) {
    const point& p = positions[taken[k]];
    cellOf[k] = cellY(p.y) * nx_ + cellX(p.x);
    ++start_[cellOf[k] + 1];
  }
  for (std::size_t c = 0; c < cells; ++c)
    start_[c + 1] += start_[c];
  std::vector<std::size_t> next(start_.begin(), start_.end() - 1);
  x_.resize(taken.size());
  y_.resize(taken.size());
  z_.resize(taken.size());
  ids_.resize(taken.size());
  for (std::size_t k = 0; k < taken.size(); ++k) {
    const std::size_t j = next[cellOf[k]]++;
    const point& p = positions[taken[k]];
    x_[j] = p.x;
    y_[j] = p.y;
    z_[j] = p.z;
    ids_[j] = taken[k];
  }
}

} // namespace Quorvel::detail
