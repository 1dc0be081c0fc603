// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: pictures of clouds and rasters: top views (the highest point of every pixel),
// vertical profiles along a line, and hillshades of rasters, coloured by class through a palette
// or by a value through a perceptually uniform ramp, with an optional legend drawn in a small
// built-in bitmap font. The pixels are made here; writing them to PNG or GeoTIFF is io's part
// (io/raster.hpp).
#pragma once

#include "quorvel/core/fields.hpp"
#include "tressel/grid.hpp"
#include "vantor/multi_range.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel {

namespace Render {

// A colour with its opacity, 0 to 255 each.
struct Rgba {
  std::uint8_t r = 0, g = 0, b = 0, a = 255;
  friend bool operator==(const Rgba&, const Rgba&) = default;
};
// Pictures hand their pixels to writers and numpy as bytes R, G, B, A, pixel after pixel.
static_assert(sizeof(Rgba) == 4);

// One class's colour and name.
struct ClassStyle {
  Rgba colour;
  std::string name;
};

// The palette of the LAS classes 0 to 255: ground brown, vegetation greens from light (low) to
// dark (high), buildings red-orange, water blue, noise magenta, ...; classes without a usual
// meaning grey, named "class N".
const std::array<ClassStyle, 256>& defaultPalette();

// The palette as `quorvel render --palette` prints it: one line per class with a usual meaning,
// "N #rrggbb name".
std::string paletteText();

// The colour of the ramp at t, 0 (dark blue-violet) to 1 (yellow), clamped: viridis-like, its
// lightness growing steadily with t, so that a value reads the same in grey.
Rgba rampColour(double t);

// "#rrggbb" or "#rrggbbaa" to a colour; false, leaving colour alone, for any other text.
bool parseColour(const std::string& text, Rgba& colour);

// GDAL's hillshade (Horn's slope, the light from azimuth degrees clockwise from north at
// altitude degrees): 1 + 254 * max(0, cos of the angle between the surface and the light), as
// gdaldem writes it, for the 3 x 3 heights w around a cell (w[0] north-west, row by row, w[4] the
// cell) of edges sizeX and sizeY.
double hillshade(const std::array<double, 9>& w, double sizeX, double sizeY, double azimuth = 315.0,
                 double altitude = 45.0);

} // namespace Render

// Settings of a picture of a cloud or a raster.
struct RenderParameterBox {
  // What colours a point: "classification" (the palette), "z", "intensity", "height" (the field
  // "CanopyHeight", heights above the ground) or the name of any numeric per-point field; empty:
  // classification for clouds, heights for rasters (grey with hillshade).
  std::string by;
  // "top" (the highest point of every pixel, georeferenced) or "profile" (a vertical section).
  std::string view = "top";
  // Edge of a pixel in the cloud's units (metres); 0: from width and height.
  double pixel = 0.0;
  // Pixels of the image along x and y at most (0: from the other one; both 0 and no pixel: the
  // longer side 1000 pixels).
  std::size_t width = 0;
  std::size_t height = 0;
  // Only the points of these classes are drawn; empty: every point.
  Vantor::MultiRange<double> classes;
  // Values mapped onto the ramp from low to high; low == high (the default): the 2nd and 98th
  // percentiles of the values drawn.
  double range_low = 0.0;
  double range_high = 0.0;
  // A panel on the right naming the classes drawn, or a colour bar with its values and unit.
  bool legend = false;
  // Top views: colours darkened by the hillshade of the highest points, so that roofs, walls and
  // trees stand out; rasters: the height colours darkened by the hillshade of the heights (not
  // together with hillshade).
  bool shade = false;
  // Rasters: the hillshade of the heights (grey, or colours by height when by names z or height).
  bool hillshade = false;
  // Profiles: the line from (from_x, from_y) to (to_x, to_y) and the points within corridor of
  // it in x-y (metres); the viewer stands to the right of the line, looking left.
  double from_x = 0.0;
  double from_y = 0.0;
  double to_x = 0.0;
  double to_y = 0.0;
  double corridor = 1.0;
  // Classes whose colour (and name, where not empty) replace the palette's.
  std::vector<std::pair<std::uint32_t, Render::ClassStyle>> palette;
  // Messages of the run.
  std::string message;

  // One line per field but palette and message, labelled by its name ("range low: ",
  // "from x: ", ...).
  void print() const;
  static constexpr auto fields();
};

// The command line binds by hand what it reads as one text (--size, --range, --from, --to) or
// from a file (--palette).
constexpr auto RenderParameterBox::fields() {
  using B = RenderParameterBox;
  return describeBox(
      "RenderParameterBox",
      field(&B::by, "by", "", "by: ",
            "classification, z, intensity, height (CanopyHeight) or a field's name; empty: "
            "classification, for rasters heights")
          .option("--by", "classification, z, intensity, height (CanopyHeight) or a field's name "
                          "(default: classification; rasters: height)"),
      field(&B::view, "view", "", "view: ", "top or profile").option("--view", "top or profile"),
      field(&B::pixel, "pixel", "m",
            "pixel: ", "edge of a pixel in metres (0: from width and height)")
          .option("--pixel", "edge of a pixel in metres (0: from --size)"),
      field(&B::width, "width", "pixels",
            "width: ", "pixels along x at most (0: from height, or 1000)"),
      field(&B::height, "height", "pixels", "height: ", "pixels along y at most (0: from width)"),
      field(&B::classes, "classes", "",
            "classes: ", "only the points of these classes (empty: all)")
          .option("--classes", "only the points of these classes"),
      field(&B::range_low, "range_low", "", "range low: ", "the value of the ramp's first colour"),
      field(&B::range_high, "range_high", "", "range high: ",
            "the value of its last colour (equal to range_low: the 2nd and 98th percentile)"),
      field(&B::legend, "legend", "", "legend: ", "class names or a colour bar on the right")
          .option("--legend", "add the class names or a colour bar on the right"),
      field(&B::shade, "shade", "", "shade: ",
            "top views shaded by the slope of the highest points; rasters: the height colours "
            "shaded (not with hillshade)")
          .option("--shade", "top views: shade by the slope of the highest points; rasters: the "
                             "height colours shaded (not with --hillshade)"),
      field(&B::hillshade, "hillshade", "", "hillshade: ", "rasters as their hillshade")
          .option("--hillshade", "rasters: the hillshade of the heights"),
      field(&B::from_x, "from_x", "m", "from x: ", "x of a profile's start in metres"),
      field(&B::from_y, "from_y", "m", "from y: ", "y of a profile's start in metres"),
      field(&B::to_x, "to_x", "m", "to x: ", "x of a profile's end in metres"),
      field(&B::to_y, "to_y", "m", "to y: ", "y of a profile's end in metres"),
      field(&B::corridor, "corridor", "m",
            "corridor: ", "a profile's points within this many metres of its line")
          .option("--width", "profiles: the points within this many metres"),
      field(&B::palette, "palette", "", "",
            "{class: \"#rrggbb\" or (\"#rrggbb\", name)} replacing the palette's colours"),
      field(&B::message, "message", "", "", "messages of the run"));
}

// A picture: RGBA pixels row by row from the top (north, or the highest z of a profile); a top
// view or raster knows where it lies: pixel (0, 0)'s upper-left corner at (left, top), pixels of
// pixelX by pixelY metres. Pixels without points are transparent (alpha 0).
struct Image {
  std::size_t width = 0, height = 0;
  std::vector<Render::Rgba> pixels;
  bool georeferenced = false;
  double left = 0.0, top = 0.0, pixelX = 1.0, pixelY = 1.0;

  Render::Rgba& at(std::size_t column, std::size_t row) { return pixels[row * width + column]; }
  const Render::Rgba& at(std::size_t column, std::size_t row) const {
    return pixels[row * width + column];
  }
};

// The picture of a point cloud (its "StandardCartesianChart3D" positions) as the box asks: a top
// view or a profile, with its legend. Throws std::runtime_error naming the problem: a missing
// field (with the command that makes "CanopyHeight"), no point to draw, an image far too large,
// a profile line of no length.
Image renderCloud(const Tressel::Grid& cloud, const RenderParameterBox& box);

// The heights of a raster, row-major from the lowest y (cell (i, j) at j * columns + i, its
// centre at (x0 + i * sizeX, y0 + j * sizeY)), NaN where a cell has none.
struct HeightGrid {
  std::size_t columns = 0, rows = 0;
  double x0 = 0.0, y0 = 0.0, sizeX = 1.0, sizeY = 1.0;
  std::vector<float> heights;
};

// The picture of a raster's heights, pixel for pixel: colours by height (with box.shade darkened
// by the hillshade), or with box.hillshade its hillshade (coloured when box.by names z or
// height); cells without a height transparent. Throws std::runtime_error for a raster without
// cells or without any height, or with both shade and hillshade.
Image renderRaster(const HeightGrid& raster, const RenderParameterBox& box);

// A small top view by classification, its longer side `size` pixels: what an overview of many
// tiles shows of each.
Image thumbnail(const Tressel::Grid& cloud, std::size_t size = 256);

} // namespace Quorvel
