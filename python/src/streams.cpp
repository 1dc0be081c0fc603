// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: LAS and LAZ files of any size cut into tiles or joined, as `quorvel tile`
// and `quorvel merge` do.
#include "cloud.hpp"

#include "io/raster.hpp"
#include "io/tiles.hpp"

#include <pybind11/stl.h>

namespace Quorvel::Python {

namespace {

Las::StreamSettings settingsOf(const std::optional<std::vector<double>>& box) {
  Las::StreamSettings settings;
  settings.box = boxOf(box);
  settings.readWarnings = readWarnings;
  settings.writeWarnings = [](const std::string& path) { return writeOptions(path).warn; };
  settings.crsName = Raster::coordinateSystemKey;
  return settings;
}

} // namespace

void bindStreams(py::module_& m) {
  m.def(
      "tile",
      [](const std::vector<std::string>& paths, const std::string& folder, double size,
         std::array<double, 2> origin, double buffer, const std::string& format,
         const std::optional<std::vector<double>>& box) {
        if (!(std::isfinite(size) && size > 0) || !(std::isfinite(buffer) && buffer >= 0))
          raiseValue("size must be a positive number, buffer 0 or more");
        const Las::StreamSettings settings = settingsOf(box);
        py::gil_scoped_release released;
        return Las::tile(paths, folder, {size, origin, buffer, format}, settings).files;
      },
      py::arg("paths"), py::arg("folder"), py::arg("size"),
      py::arg("origin") = std::array<double, 2>{0, 0}, py::arg("buffer") = 0.0,
      py::arg("format") = "", py::arg("box") = py::none(),
      "Cuts LAS and LAZ files of any size into square tiles, streamed with bounded memory.\n\n"
      "A point goes to the tile whose lower-left corner (cx, cy) = origin + (i, j) * size has\n"
      "cx <= x < cx + size and cy <= y < cy + size, written to folder/cx_cy.las (.laz,\n"
      ".copc.laz). Returns the paths written.\n\n"
      "Parameters:\n"
      "    paths: LAS or LAZ files of one point format and coordinate system\n"
      "    folder: made when missing\n"
      "    size: the side of the tiles; origin: a corner of their grid\n"
      "    buffer: tiles also hold the points within buffer of their square, with the field\n"
      "        \"Buffer\" 1 (0 for their own points)\n"
      "    format: \"las\", \"laz\" or \"copc\"; \"\": the first file's\n"
      "    box: (x0, y0, x1, y1[, z0, z1]): only the points inside it");
  m.def(
      "merge",
      [](const std::vector<std::string>& paths, const std::string& output,
         const std::optional<std::vector<double>>& box) {
        const Las::StreamSettings settings = settingsOf(box);
        py::gil_scoped_release released;
        return Las::merge(paths, output, settings);
      },
      py::arg("paths"), py::arg("output"), py::arg("box") = py::none(),
      "Joins LAS and LAZ files of any size into one, streamed with bounded memory, in the order\n"
      "given, with the first file's header, scale, offset and coordinate system. Returns the\n"
      "points written.\n\n"
      "Parameters:\n"
      "    paths: LAS or LAZ files of one point format and coordinate system\n"
      "    output: .las, .laz or .copc.laz (COPC, which holds all points in memory to order them)\n"
      "    box: (x0, y0, x1, y1[, z0, z1]): only the points inside it");
}

} // namespace Quorvel::Python
