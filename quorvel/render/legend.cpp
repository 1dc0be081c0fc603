// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the legend panel of a picture: a swatch and a name per class drawn, or a colour bar
// with its lowest, middle and highest value and its title.
#include "quorvel/render/detail/draw.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Quorvel::Render::detail {

namespace {

constexpr Rgba White{255, 255, 255, 255}, Black{0, 0, 0, 255};

// A value with as many decimals as tell the bar's values apart (span: its high minus low).
std::string number(double v, double span) {
  const int decimals =
      span > 0 ? std::clamp(2 - static_cast<int>(std::floor(std::log10(span))), 0, 6) : 2;
  char text[48];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  return text;
}

// Glyphs twice as large on pictures large enough to carry them.
int scaleOf(const Image& image) {
  return image.height >= 600 ? 2 : 1;
}

// The image with `columns` more columns on its right and at least `rows` rows, the old pixels in
// place and the new ones transparent.
void widen(Image& image, std::size_t columns, std::size_t rows) {
  Image out;
  out.width = image.width + columns;
  out.height = std::max(image.height, rows);
  out.pixels.assign(out.width * out.height, Rgba{0, 0, 0, 0});
  for (std::size_t row = 0; row < image.height; ++row)
    std::copy_n(image.pixels.begin() + static_cast<std::ptrdiff_t>(row * image.width), image.width,
                out.pixels.begin() + static_cast<std::ptrdiff_t>(row * out.width));
  image.width = out.width;
  image.height = out.height;
  image.pixels.swap(out.pixels);
}

void classLegend(Image& image, const LegendContent& legend, int s) {
  const std::size_t margin = 4 * s, line = 10 * s, swatch = 8 * s;
  std::size_t textColumns = 0;
  for (const auto& [cls, style] : legend.classes)
    textColumns = std::max(textColumns, textWidth(std::to_string(cls) + " " + style.name, s));
  const std::size_t x = image.width;
  widen(image, 2 * margin + swatch + margin + textColumns,
        2 * margin + legend.classes.size() * line);
  fillRect(image, x, 0, image.width - x, 2 * margin + legend.classes.size() * line, White);
  for (std::size_t k = 0; k < legend.classes.size(); ++k) {
    const auto& [cls, style] = legend.classes[k];
    const std::size_t y = margin + k * line;
    fillRect(image, x + margin, y, swatch, swatch - s, Black);
    fillRect(image, x + margin + s, y + s, swatch - 2 * s, swatch - 3 * s,
             {style.colour.r, style.colour.g, style.colour.b, 255});
    drawText(image, x + 2 * margin + swatch, y, std::to_string(cls) + " " + style.name, Black, s);
  }
}

void rampLegend(Image& image, const LegendContent& legend, int s) {
  const std::size_t margin = 4 * s, line = 10 * s, bar = 12 * s;
  const std::size_t barRows =
      std::max<std::size_t>(64 * s, std::min<std::size_t>(image.height / 2, 256 * s));
  const double span = legend.high - legend.low;
  const std::string labels[] = {number(legend.high, span),
                                number((legend.low + legend.high) / 2, span),
                                number(legend.low, span)};
  std::size_t textColumns = textWidth(legend.title, s);
  for (const std::string& label : labels)
    textColumns = std::max(textColumns, bar + margin + textWidth(label, s));
  const std::size_t x = image.width, panelRows = 3 * margin + line + barRows + GlyphHeight * s;
  widen(image, 2 * margin + textColumns, panelRows);
  fillRect(image, x, 0, image.width - x, panelRows, White);
  drawText(image, x + margin, margin, legend.title, Black, s);
  const std::size_t top = 2 * margin + line;
  for (std::size_t row = 0; row < barRows; ++row)
    fillRect(image, x + margin, top + row, bar, 1,
             rampColour(1.0 - static_cast<double>(row) / static_cast<double>(barRows - 1)));
  for (std::size_t k = 0; k < 3; ++k)
    drawText(image, x + 2 * margin + bar, top + k * (barRows - GlyphHeight * s) / 2, labels[k],
             Black, s);
}

} // namespace

void addLegend(Image& image, const LegendContent& legend) {
  const int s = scaleOf(image);
  if (legend.ramp)
    rampLegend(image, legend, s);
  else
    classLegend(image, legend, s);
}

} // namespace Quorvel::Render::detail
