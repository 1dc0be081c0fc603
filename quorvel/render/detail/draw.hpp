// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the pictures share: text in a 5 x 7 bitmap font, the z-buffer of projected
// points, and the legend panel.
#pragma once

#include "quorvel/render/render.hpp"

#include <array>
#include <cmath>
#include <string>

namespace Quorvel::Render::detail {

// Glyphs are 5 x 7 cells with one cell of space after each; every cell is scale x scale pixels.
inline constexpr int GlyphWidth = 6, GlyphHeight = 7;

// The width in pixels of text drawn at scale.
std::size_t textWidth(const std::string& text, int scale);

// Draws text with its upper-left corner at (x, y), letters in capitals (the font has no small
// ones), characters the font lacks as '?'; pixels outside the image are left out.
void drawText(Image& image, std::size_t x, std::size_t y, const std::string& text, Rgba colour,
              int scale);

// Fills the rectangle of w x h pixels at (x, y), clipped to the image.
void fillRect(Image& image, std::size_t x, std::size_t y, std::size_t w, std::size_t h,
              Rgba colour);

// The 3 x 3 heights around (column, row) (rows from the top), at(column, row) giving NaN where
// there is none (off the picture, no point). A missing side neighbour is extrapolated linearly
// from the cell through the opposite one (else takes the cell's height), a missing corner from
// the plane through the cell and its two sides: a plane shades alike up to its edges, and the
// rim of the drawn area is no cliff.
template <class At>
std::array<double, 9> window(At&& at, long long column, long long row) {
  std::array<double, 9> w;
  for (int k = 0; k < 9; ++k)
    w[k] = at(column + k % 3 - 1, row + k / 3 - 1);
  for (int k : {1, 3, 5, 7})
    if (std::isnan(w[k]))
      w[k] = std::isnan(w[8 - k]) ? w[4] : 2 * w[4] - w[8 - k];
  for (int k : {0, 2, 6, 8})
    if (std::isnan(w[k]))
      w[k] = w[k < 3 ? 1 : 7] + w[k % 3 == 0 ? 3 : 5] - w[4];
  return w;
}

// A colour darkened by a hillshade value (0 to 255) for --shade: a flat surface keeps most of
// its colour, a face away from the light 40 %, so that the colours still read.
inline Rgba darkened(Rgba c, double shade) {
  const double f = 0.4 + 0.6 * shade / 255.0;
  return {static_cast<std::uint8_t>(c.r * f), static_cast<std::uint8_t>(c.g * f),
          static_cast<std::uint8_t>(c.b * f), c.a};
}

// What a legend shows: the classes drawn (ascending), or the ramp's range and its title.
struct LegendContent {
  std::vector<std::pair<int, ClassStyle>> classes;
  bool ramp = false;
  double low = 0.0, high = 0.0;
  std::string title;
};

// The image widened by an opaque white panel on its right holding the legend (and made taller
// when the panel needs it, the new rows transparent).
void addLegend(Image& image, const LegendContent& legend);

} // namespace Quorvel::Render::detail
