// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: pictures of rasters: heights through the ramp, or their hillshade as gdaldem draws it
// (light from the north-west, 45 degrees up), grey or coloured by height, or the height colours
// darkened by the hillshade (shade, as top views of clouds).
#include "quorvel/render/detail/draw.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace Quorvel {

using namespace Render;

namespace {

// The height of cell (i, j) counted from the top row, or fallback where it has none or lies off
// the raster.
double heightAt(const HeightGrid& g, long long i, long long rowFromTop, double fallback) {
  if (i < 0 || rowFromTop < 0 || i >= static_cast<long long>(g.columns) ||
      rowFromTop >= static_cast<long long>(g.rows))
    return fallback;
  const std::size_t j = g.rows - 1 - static_cast<std::size_t>(rowFromTop);
  const float h = g.heights[j * g.columns + static_cast<std::size_t>(i)];
  return std::isfinite(h) ? h : fallback;
}

std::pair<double, double> heightRange(const HeightGrid& g, const RenderParameterBox& box) {
  if (box.range_low != box.range_high)
    return {box.range_low, box.range_high};
  std::vector<float> v;
  for (float h : g.heights)
    if (std::isfinite(h))
      v.push_back(h);
  if (v.empty())
    throw std::runtime_error("render: the raster has no cell with a height");
  const auto at = [&](double share) {
    auto nth = v.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), nth, v.end());
    return static_cast<double>(*nth);
  };
  return {at(0.02), at(0.98)};
}

// A cell's colour under the light: multiplied by the hillshade (--hillshade, as gdaldem), or
// darkened by it as top views of clouds are (--shade).
Rgba lit(const HeightGrid& g, long long column, long long row, Rgba colour,
         const RenderParameterBox& box) {
  const double shade = hillshade(
      detail::window([&](long long x, long long y) { return heightAt(g, x, y, std::nan("")); },
                     column, row),
      g.sizeX, g.sizeY);
  if (!box.hillshade)
    return detail::darkened(colour, shade);
  const double f = shade / 255.0;
  return {static_cast<std::uint8_t>(std::lround(colour.r * f)),
          static_cast<std::uint8_t>(std::lround(colour.g * f)),
          static_cast<std::uint8_t>(std::lround(colour.b * f)), 255};
}

} // namespace

Image renderRaster(const HeightGrid& g, const RenderParameterBox& box) {
  if (g.columns == 0 || g.rows == 0 || g.heights.size() != g.columns * g.rows)
    throw std::runtime_error("render: the raster holds no cells");
  if (box.shade && box.hillshade)
    throw std::runtime_error("render: shade and hillshade together: a raster is either its "
                             "grey hillshade (hillshade; coloured by height with by z) or its "
                             "height colours darkened by the hillshade (shade)");
  const auto [low, high] = heightRange(g, box);
  const bool coloured = !box.hillshade || box.by == "z" || box.by == "height";
  Image image;
  image.width = g.columns;
  image.height = g.rows;
  image.georeferenced = true;
  image.pixelX = g.sizeX;
  image.pixelY = g.sizeY;
  image.left = g.x0 - g.sizeX / 2;
  image.top = g.y0 + g.sizeY * (static_cast<double>(g.rows) - 0.5);
  image.pixels.assign(g.columns * g.rows, Rgba{0, 0, 0, 0});
  for (std::size_t row = 0; row < g.rows; ++row)
    for (std::size_t i = 0; i < g.columns; ++i) {
      const auto r = static_cast<long long>(row), c = static_cast<long long>(i);
      const double h = heightAt(g, c, r, std::nan(""));
      if (std::isnan(h))
        continue;
      const Rgba colour = coloured ? rampColour(high > low ? (h - low) / (high - low) : 0.5)
                                   : Rgba{255, 255, 255, 255};
      image.at(i, row) = box.hillshade || box.shade ? lit(g, c, r, colour, box) : colour;
    }
  if (box.legend && coloured)
    detail::addLegend(image, {{}, true, low, high, "height (m)"});
  return image;
}

} // namespace Quorvel
