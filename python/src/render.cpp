// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: pictures of clouds and rasters, to PNG or GeoTIFF files or as numpy RGBA
// arrays for notebooks.
#include "boxes.hpp"

#include "io/raster.hpp"
#include "quorvel/render/render.hpp"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <tuple>
#include <variant>

namespace Quorvel::Python {

namespace {

using Point2 = std::pair<double, double>;
// A class's colour "#rrggbb", or its colour and name.
using Style = std::variant<std::string, std::pair<std::string, std::string>>;

struct Options {
  std::string by, view;
  double pixel;
  std::optional<std::vector<std::size_t>> size;
  std::string classes;
  std::optional<Point2> range;
  bool legend, shade, hillshade;
  std::optional<std::pair<Point2, Point2>> line;
  double width;
  std::map<int, Style> palette;
};

void check(const char* field, const py::object& value) {
  requireValue("RenderParameterBox", field, value);
}

std::vector<std::pair<std::uint32_t, Render::ClassStyle>>
paletteOf(const std::map<int, Style>& styles) {
  std::vector<std::pair<std::uint32_t, Render::ClassStyle>> out;
  for (const auto& [cls, style] : styles) {
    Render::ClassStyle s;
    const std::string colour = std::holds_alternative<std::string>(style)
                                   ? std::get<std::string>(style)
                                   : std::get<1>(style).first;
    if (cls < 0 || cls > 255 || !Render::parseColour(colour, s.colour))
      raiseValue("\"palette\": class " + std::to_string(cls) + ": \"" + colour +
                 "\" is not a class 0 to 255 with a colour \"#rrggbb\"");
    if (std::holds_alternative<std::pair<std::string, std::string>>(style))
      s.name = std::get<1>(style).second;
    out.emplace_back(static_cast<std::uint32_t>(cls), s);
  }
  return out;
}

RenderParameterBox boxOf(const Options& o) {
  RenderParameterBox box;
  check("view", py::str(o.view));
  check("pixel", py::float_(o.pixel));
  check("classes", py::str(o.classes));
  check("corridor", py::float_(o.width));
  box.by = o.by, box.view = o.view, box.pixel = o.pixel;
  box.classes = Vantor::MultiRange<double>(o.classes);
  box.legend = o.legend, box.shade = o.shade, box.hillshade = o.hillshade;
  box.corridor = o.width;
  if (o.size) {
    if (o.size->empty() || o.size->size() > 2)
      raiseValue("\"size\": give (width,) or (width, height) in pixels");
    check("width", py::int_((*o.size)[0]));
    box.width = (*o.size)[0];
    box.height = o.size->size() == 2 ? (*o.size)[1] : 0;
    check("height", py::int_(box.height));
  }
  if (o.range) {
    if (!(o.range->first < o.range->second))
      raiseValue("\"range\": low must be below high");
    std::tie(box.range_low, box.range_high) = *o.range;
  }
  if (o.line)
    std::tie(box.from_x, box.from_y, box.to_x, box.to_y) = std::tuple(
        o.line->first.first, o.line->first.second, o.line->second.first, o.line->second.second);
  else if (box.view == "profile")
    raiseValue("\"line\": a profile needs line=((x0, y0), (x1, y1))");
  box.palette = paletteOf(o.palette);
  return box;
}

// The picture of a cloud or of a raster (a grid that is one), and its coordinate system.
std::pair<Image, std::string> picture(const Cloud& cloud, const RenderParameterBox& box,
                                      const std::string& heightField) {
  py::gil_scoped_release released;
  if (const auto summary = Raster::summarizeRaster(*cloud.grid, heightField))
    return {renderRaster(Raster::heightsOf(*cloud.grid, heightField, "raster"), box),
            summary->coordinateSystem};
  return {renderCloud(*cloud.grid, box), Raster::coordinateSystemOf(*cloud.grid)};
}

py::array_t<std::uint8_t> arrayOf(const Image& image) {
  py::array_t<std::uint8_t> out({image.height, image.width, std::size_t{4}});
  std::memcpy(out.mutable_data(), image.pixels.data(), image.pixels.size() * 4);
  return out;
}

const char* const Parameters =
    "    by: \"classification\" (the palette), \"z\", \"intensity\", \"height\" (CanopyHeight) "
    "or a field's name; \"\": classification, for rasters heights\n"
    "    view: \"top\" (the highest point of every pixel) or \"profile\"\n"
    "    pixel: edge of a pixel in metres (0: from size)\n"
    "    size: (width,) or (width, height): the picture's pixels at most; default 1000 wide\n"
    "    classes: only the points of these classes (a range text)\n"
    "    range: (low, high) of the colour ramp; None: the 2nd and 98th percentile\n"
    "    legend: class names or a colour bar on the right\n"
    "    shade: top views shaded by the slope of the highest points; rasters: the height colours "
    "shaded (not with hillshade)\n"
    "    hillshade: rasters as their hillshade (light from azimuth 315, altitude 45)\n"
    "    line: ((x0, y0), (x1, y1)) of a profile, seen from its right\n"
    "    width: a profile's points within this many metres of the line\n"
    "    palette: {class: \"#rrggbb\" or (\"#rrggbb\", name)} replacing the palette's colours\n"
    "    height_field: a raster's field of heights\n";

} // namespace

// The keywords of both functions after their first arguments, with their defaults.
#define QUORVEL_RENDER_PARAMETERS                                                                  \
  std::string by, std::string view, double pixel, std::optional<std::vector<std::size_t>> size,    \
      std::string classes, std::optional<Point2> range, bool legend, bool shade, bool hillshade,   \
      std::optional<std::pair<Point2, Point2>> line, double width, std::map<int, Style> palette,   \
      const std::string &heightField
#define QUORVEL_RENDER_OPTIONS                                                                     \
  Options {                                                                                        \
    by, view, pixel, size, classes, range, legend, shade, hillshade, line, width, palette          \
  }
#define QUORVEL_RENDER_KEYWORDS                                                                    \
  py::arg("by") = "", py::arg("view") = "top", py::arg("pixel") = 0.0,                             \
  py::arg("size") = py::none(), py::arg("classes") = "", py::arg("range") = py::none(),            \
  py::arg("legend") = false, py::arg("shade") = false, py::arg("hillshade") = false,               \
  py::arg("line") = py::none(), py::arg("width") = 1.0, py::arg("palette") = py::dict(),           \
  py::arg("height_field") = "Height"

void bindBox(py::module_& m) {
  using Box = RenderParameterBox;
  BoxBinding<Box>(m, "RenderParameterBox",
                  "Settings of a picture (render() and render_array() build one from their "
                  "keywords).")
      .property(
          "palette",
          [](const Box& b) {
            std::map<int, std::pair<std::string, std::string>> out;
            for (const auto& [cls, style] : b.palette) {
              char colour[16];
              std::snprintf(colour, sizeof colour, "#%02x%02x%02x%02x", style.colour.r,
                            style.colour.g, style.colour.b, style.colour.a);
              out[static_cast<int>(cls)] = {colour, style.name};
            }
            return out;
          },
          [](Box& b, const std::map<int, Style>& styles) { b.palette = paletteOf(styles); })
      .describedFields();
}

void bindRender(py::module_& m) {
  bindBox(m);
  static const std::string renderDoc =
      std::string("Writes a picture of a cloud or raster: .png (with a world file .pgw beside a "
                  "top view) or .tif (a GeoTIFF with the coordinate system).\n\nParameters:\n"
                  "    cloud: a cloud, or a raster (groundRaster(), read() of a raster)\n"
                  "    path: the picture's file\n") +
      Parameters;
  static const std::string arrayDoc =
      std::string("The picture render() writes, as a (rows, columns, 4) uint8 RGBA array, the "
                  "first row the northern (or highest) one; transparent where no point lies."
                  "\n\nParameters:\n    cloud: a cloud, or a raster\n") +
      Parameters;
  m.def(
      "render",
      [](const Cloud& cloud, const std::string& path, QUORVEL_RENDER_PARAMETERS) {
        const auto [image, wkt] = picture(cloud, boxOf(QUORVEL_RENDER_OPTIONS), heightField);
        Raster::writePicture(path, image, wkt);
      },
      py::arg("cloud"), py::arg("path"), QUORVEL_RENDER_KEYWORDS, renderDoc.c_str());
  m.def(
      "render_array",
      [](const Cloud& cloud, QUORVEL_RENDER_PARAMETERS) {
        return arrayOf(picture(cloud, boxOf(QUORVEL_RENDER_OPTIONS), heightField).first);
      },
      py::arg("cloud"), QUORVEL_RENDER_KEYWORDS, arrayDoc.c_str());
  m.def(
      "write_thumbnail",
      [](const Cloud& cloud, const std::string& path, std::size_t size) {
        py::gil_scoped_release released;
        Raster::writeThumbnail(path, *cloud.grid, size);
      },
      py::arg("cloud"), py::arg("path"), py::arg("size") = 256,
      "Writes a small top view by classification of a cloud (.png with its world file, or "
      ".tif), its longer side size pixels: a tile's picture in an overview of a survey.\n\n"
      "Parameters:\n"
      "    cloud: the cloud\n"
      "    path: the picture's file (.png or .tif)\n"
      "    size: pixels of the longer side");
}

} // namespace Quorvel::Python
