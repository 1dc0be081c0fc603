// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: raster preparation and mapping, and fields carried from grid to grid.
#include "boxes.hpp"

#include "basalt/text.hpp"
#include "io/raster.hpp"
#include "quorvel/raster/raster.hpp"
#include "tressel/bundle.hpp"
#include "tressel/uniform_grid.hpp"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <tuple>

namespace Quorvel::Python {

namespace {

using Box = MapRasterOnPointCloudParameterBox;
using Triple = std::array<double, 3>;
using Vantor::PhysicalSpace::point;
using Vantor::PhysicalSpace::vector;

using Band = std::tuple<double, double, std::uint32_t>;
using ClassBand = std::tuple<std::uint32_t, double, double, double, double>;

void bindBox(py::module_& m) {
  BoxBinding<Box>(m, "MapRasterOnPointCloudParameterBox",
                  "Settings of raster preparation and mapping.")
      .readonly("raster_bbox",
                [](const Box& b) -> std::optional<std::pair<Triple, Triple>> {
                  if (!b.raster_bbox || b.raster_bbox->empty())
                    return std::nullopt;
                  const point &lo = b.raster_bbox->min(), &hi = b.raster_bbox->max();
                  return std::make_pair(Triple{lo.x, lo.y, lo.z}, Triple{hi.x, hi.y, hi.z});
                })
      .property(
          "assignment",
          [](const Box& b) {
            std::vector<Band> out;
            for (const HeightBand& band : b.assignment)
              out.emplace_back(band.low, band.high, band.cls);
            return out;
          },
          [](Box& b, const std::vector<Band>& bands) {
            b.assignment.clear();
            for (const auto& [low, high, cls] : bands)
              b.assignment.push_back({low, high, cls});
          })
      .property(
          "class_assignment",
          [](const Box& b) {
            std::vector<ClassBand> out;
            for (const ClassConditionalBand& band : b.class_assignment)
              out.emplace_back(band.cls, band.low, band.high, band.classFrom, band.classTo);
            return out;
          },
          [](Box& b, const std::vector<ClassBand>& bands) {
            b.class_assignment.clear();
            for (const auto& [cls, low, high, from, to] : bands)
              b.class_assignment.push_back({cls, low, high, from, to});
          })
      .describedFields();
}

void bindGroundBox(py::module_& m) {
  using Ground = GroundRasterParameterBox;
  BoxBinding<Ground>(m, "GroundRasterParameterBox", "Settings of a ground raster.")
      .describedFields();
  using Surface = SurfaceParameterBox;
  BoxBinding<Surface>(m, "SurfaceParameterBox",
                      "Settings of the surface model, density and canopy height rasters.")
      .describedFields();
}

// The surfaces: each takes a SurfaceParameterBox, checked as the host checks it.
void bindSurfaces(py::module_& m) {
  const auto surface = [](auto make) {
    return [make](Cloud& cloud, SurfaceParameterBox& box) {
      requireBox("SurfaceParameterBox", box);
      py::gil_scoped_release released;
      return Cloud{make(*cloud.grid, box, Raster::coordinateSystemOf(*cloud.grid))};
    };
  };
  m.def("surfaceRaster", surface([](const auto&... a) { return surfaceRaster(a...); }),
        py::arg("cloud"), py::arg("box"),
        "The surface model: the highest z of the box's points in every cell (CellType 0), "
        "cells without points filled up to box.fill_rings (4), else no data (1).\n\n"
        "Parameters:\n"
        "    cloud: the cloud (positions in metres)\n"
        "    box: SurfaceParameterBox (cell size, classes, first returns, fill rings)");
  m.def("densityRaster", surface([](const auto&... a) { return densityRaster(a...); }),
        py::arg("cloud"), py::arg("box"),
        "The density: the box's points per square metre of every cell.\n\n"
        "Parameters:\n"
        "    cloud: the cloud (positions in metres)\n"
        "    box: SurfaceParameterBox (cell size, classes, first returns)");
  m.def(
      "canopyRaster",
      [](Cloud& cloud, Cloud& ground, SurfaceParameterBox& box) {
        requireBox("SurfaceParameterBox", box);
        py::gil_scoped_release released;
        return Cloud{
            canopyRaster(*cloud.grid, *ground.grid, box, Raster::coordinateSystemOf(*cloud.grid))};
      },
      py::arg("cloud"), py::arg("ground"), py::arg("box"),
      "The canopy height: the surface model less the ground raster's height under every cell's "
      "centre, negatives as 0, pits filled when box.pit_depth > 0.\n\n"
      "Parameters:\n"
      "    cloud: the cloud (positions in metres)\n"
      "    ground: the ground raster (groundRaster(), or read() of a raster)\n"
      "    box: SurfaceParameterBox (cell size, classes, first returns, fill rings, pit depth, "
      "ground field)");
}

point pointOf(const Triple& t) {
  return point(t[0], t[1], t[2]);
}

void bindRules(py::module_& m) {
  m.def(
      "mapClassification",
      [](double low, double high, const Triple& plane, const Triple& p, double maxGround,
         double minGround, double groundHeight, int cls, int cls_out) {
        auto out = static_cast<std::uint8_t>(cls_out);
        mapClassification(low, high, vector(plane[0], plane[1], plane[2]), pointOf(p), maxGround,
                          minGround, groundHeight, cls, out);
        return static_cast<int>(out);
      },
      py::arg("low"), py::arg("high"), py::arg("plane"), py::arg("p"), py::arg("maxGround"),
      py::arg("minGround"), py::arg("groundHeight"), py::arg("cls"), py::arg("cls_out"),
      "The class after the band rule with both tests (cls_out when neither holds).\n\n"
      "Parameters:\n"
      "    low, high: the band in metres above the ground\n"
      "    plane: the cell's height plane (a, b, c) of z = a x + b y + c; c >= 1e7: none\n"
      "    p: the point (x, y, z) in metres\n"
      "    maxGround, minGround: highest and lowest ground of the cell's block in metres\n"
      "    groundHeight: the cell's ground height in metres\n"
      "    cls: the band's class; cls_out: the point's class before");
  m.def(
      "mapClassificationStep",
      [](double low, double high, const Triple& p, double groundHeight, int cls, int cls_out) {
        auto out = static_cast<std::uint8_t>(cls_out);
        mapClassificationStep(low, high, pointOf(p), groundHeight, cls, out);
        return static_cast<int>(out);
      },
      py::arg("low"), py::arg("high"), py::arg("p"), py::arg("groundHeight"), py::arg("cls"),
      py::arg("cls_out"),
      "The class after the step rule (cls_out when it does not hold).\n\n"
      "Parameters:\n"
      "    low, high: the band in metres above the ground\n"
      "    p: the point (x, y, z) in metres\n"
      "    groundHeight: the cell's ground height in metres\n"
      "    cls: the band's class; cls_out: the point's class before");
}

// Raises when a run that returns a flag failed; its messages went to standard output.
void require(bool ok, const std::string& what) {
  if (!ok)
    raise(what + " failed (see the messages on standard output)");
}

// Rasters prepared for mapping: read from a bundle or already in memory, and their layout.
void bindPreparation(py::module_& m) {
  m.def(
      "prepareRaster",
      [](const std::string& path, Box& box) {
        requireBox("MapRasterOnPointCloudParameterBox", box);
        Cloud raster;
        bool ok = false;
        {
          py::gil_scoped_release released;
          ok = prepareRaster(path, raster.grid, box);
        }
        require(ok, "prepareRaster of " + path);
        return raster;
      },
      py::arg("path"), py::arg("box"),
      "The raster of a bundle file, prepared (planes, highest and lowest ground per cell).\n\n"
      "Parameters:\n"
      "    path: a bundle file (.h5) whose first grid is the raster\n"
      "    box: MapRasterOnPointCloudParameterBox (cellsize in metres); receives raster_bbox");
  m.def(
      "takeRasterLayout",
      [](Cloud& raster, Box& box) { return takeRasterLayout(*raster.grid, box); },
      py::arg("raster"), py::arg("box"),
      "Sets the box's cellsize (metres) and rastersize (cells) from the raster's layout.\n\n"
      "Parameters:\n"
      "    raster: a raster cloud (raster(), groundRaster(), read() of a raster)\n"
      "    box: MapRasterOnPointCloudParameterBox\n"
      "Returns False, leaving the box alone, for a cloud without a raster layout.");
  m.def(
      "prepareRaster",
      [](Cloud& raster, Box& box) {
        requireBox("MapRasterOnPointCloudParameterBox", box);
        py::gil_scoped_release released;
        return prepareRaster(raster.grid, box);
      },
      py::arg("raster"), py::arg("box"),
      "Prepares a raster already read (planes, highest and lowest ground per cell).\n\n"
      "Parameters:\n"
      "    raster: a raster cloud\n"
      "    box: MapRasterOnPointCloudParameterBox (cellsize in metres); receives raster_bbox");
}

// Mapping prepared rasters onto clouds and bundle files, and fields onto raster cells.
void bindMapping(py::module_& m) {
  m.def(
      "mapData",
      [](Cloud& cloud, Cloud& raster, Box& box) {
        requireBox("MapRasterOnPointCloudParameterBox", box);
        py::gil_scoped_release released;
        return mapData(cloud.grid, raster.grid, box);
      },
      py::arg("cloud"), py::arg("raster"), py::arg("box"),
      "Classes by height bands, or \"CanopyHeight\" (float32, metres), from a prepared "
      "raster.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres)\n"
      "    raster: a prepared raster (prepareRaster)\n"
      "    box: MapRasterOnPointCloudParameterBox (bands in metres above the ground)");
  m.def(
      "mapData",
      [](const std::vector<std::string>& files, const std::string& rasterFile, Box& box) {
        requireBox("MapRasterOnPointCloudParameterBox", box);
        py::gil_scoped_release released;
        return mapData(files, rasterFile, box);
      },
      py::arg("files"), py::arg("rasterFile"), py::arg("box"),
      "Maps a raster file onto every grid of the bundle files, writing each back in place.\n\n"
      "Parameters:\n"
      "    files: bundle files (.h5), rewritten in place\n"
      "    rasterFile: the bundle file of the raster\n"
      "    box: MapRasterOnPointCloudParameterBox (bands in metres above the ground)");
  m.def(
      "mapSourceToTarget",
      [](Cloud& source, const std::string& sourceField, Cloud& target,
         const std::string& targetField, double radius) {
        requireValue("mapSourceToTarget", "radius", py::float_(radius));
        std::string message;
        {
          py::gil_scoped_release released;
          message = mapSourceToTarget(*source.grid, sourceField, *target.grid, targetField, radius);
        }
        if (!message.empty())
          raise(message);
      },
      py::arg("source"), py::arg("sourceField"), py::arg("target"), py::arg("targetField"),
      py::arg("radius"),
      "A field of source onto target's cells by the nearest point in x-y.\n\n"
      "Parameters:\n"
      "    source: the cloud whose field is carried\n"
      "    sourceField: the source's field (any scalar type)\n"
      "    target: the raster that receives the field\n"
      "    targetField: the target's new field (float32)\n"
      "    radius: largest x-y distance to a source point in metres, positive");
}

void bindRuns(py::module_& m) {
  bindPreparation(m);
  bindMapping(m);
}

using Heights = py::array_t<float, py::array::c_style | py::array::forcecast>;
using Types = py::array_t<std::uint8_t, py::array::c_style | py::array::forcecast>;

// A raster of one layer from a (rows, columns) array of heights: cell (i, j) at origin + (i, j)
// * cellSize takes height[j, i]; cell types 0 (1 where the height is NaN) unless given; cells
// that fill up the last fragments get type 1 and NaN.
Cloud rasterOf(const Heights& height, const std::optional<Types>& types, const Triple& origin,
               double cellSize, std::size_t fragmentCells, const std::string& heightField) {
  if (height.ndim() != 2 || (types && (types->ndim() != 2 || types->shape(0) != height.shape(0) ||
                                       types->shape(1) != height.shape(1))))
    raise("a raster needs a 2-D array of heights and cell types of the same shape");
  if (!(std::isfinite(cellSize) && cellSize > 0) || fragmentCells == 0)
    raise("a raster needs a positive finite cell size and fragment size");
  const auto ny = static_cast<std::size_t>(height.shape(0));
  const auto nx = static_cast<std::size_t>(height.shape(1));
  const std::size_t cx = std::max<std::size_t>(1, std::min(fragmentCells, nx));
  const std::size_t cy = std::max<std::size_t>(1, std::min(fragmentCells, ny));
  const float* h = height.data();
  // NaN marks a cell without a height; an infinite height is no measurement at all.
  if (const auto bad = std::find_if(h, h + nx * ny, [](float v) { return std::isinf(v); });
      bad != h + nx * ny)
    raiseValue(Basalt::format("height: the cell at row %zu, column %zu is %g",
                              static_cast<std::size_t>(bad - h) / nx,
                              static_cast<std::size_t>(bad - h) % nx, double(*bad)));
  Tressel::Bundle bundle;
  Cloud out{Tressel::createUniformGrid3D(bundle, 0.0, "raster", {nx, ny, 1}, {cx, cy, 1},
                                         pointOf(origin), vector(cellSize, cellSize, 0.0))};
  std::vector<std::uint8_t> cellTypes(nx * ny);
  for (std::size_t k = 0; k < cellTypes.size(); ++k)
    cellTypes[k] = types ? types->data()[k] : static_cast<std::uint8_t>(std::isnan(h[k]) ? 1 : 0);
  Tressel::setUniformCells<std::uint8_t>(*out.grid, "CellType", cellTypes.data(), nx, ny, 1);
  Tressel::setUniformCells<float>(*out.grid, heightField, h, nx, ny,
                                  std::numeric_limits<float>::quiet_NaN());
  return out;
}

// A cell field of a raster as a (rows, columns) array over the whole raster;
// vectors as (rows, columns, 3).
py::array cellsOf(const Cloud& raster, const std::string& name) {
  const auto view = Tressel::uniformGridView(*raster.grid);
  if (!view)
    raise("not a raster");
  const auto rows = static_cast<py::ssize_t>(view->total[1]);
  const auto columns = static_cast<py::ssize_t>(view->total[0]);
  const auto field = (*raster.grid)(Tressel::StandardCartesianChart3D, name);
  // Types compared by name: the module's own type objects are not the library's.
  const std::string type = field && field->getElementType() ? field->getElementType()->name() : "";
  try {
    if (type == "uint8")
      return py::array_t<std::uint8_t>(
          {rows, columns}, Tressel::uniformCells<std::uint8_t>(*raster.grid, name).data());
    if (type == "float32")
      return py::array_t<float>({rows, columns},
                                Tressel::uniformCells<float>(*raster.grid, name).data());
    if (type == "float64")
      return py::array_t<double>({rows, columns},
                                 Tressel::uniformCells<double>(*raster.grid, name).data());
    if (type == "vector") {
      const auto cells = Tressel::uniformCells<vector>(*raster.grid, name);
      return py::array_t<double>({rows, columns, py::ssize_t(3)},
                                 reinterpret_cast<const double*>(cells.data()));
    }
  } catch (const std::invalid_argument& e) {
    raise(e.what());
  }
  raise("the raster has no cell field \"" + name + "\" of uint8, float, double or vectors");
}

void bindRasters(py::module_& m) {
  m.def("raster", &rasterOf, py::arg("height"), py::arg("cell_type") = std::nullopt,
        py::arg("origin") = Triple{0, 0, 0}, py::arg("cell_size") = 1.0,
        py::arg("fragment_cells") = 256, py::arg("height_field") = "Height",
        "A raster from a (rows, columns) array of heights.\n\n"
        "Cell (i, j) at origin + (i, j) * cell_size takes height[j, i].\n\n"
        "Parameters:\n"
        "    height: (rows, columns) heights in metres; NaN: no data; an infinite height "
        "raises ValueError\n"
        "    cell_type: (rows, columns) cell types (0, 4: ground; 1: no data); None: 0, or 1 "
        "where the height is NaN\n"
        "    origin: (x, y, z) of cell (0, 0) in metres\n"
        "    cell_size: edge of a cell in metres, positive and finite\n"
        "    fragment_cells: cells of a fragment along x and y\n"
        "    height_field: the field of the heights");
  m.def(
      "groundRaster",
      [](Cloud& cloud, double cellSize, const std::string& classes, int fillRings,
         std::size_t fragmentCells, const std::string& heightField, const std::string& method) {
        const char* const box = "GroundRasterParameterBox";
        requireValue(box, "cell_size", py::float_(cellSize));
        requireValue(box, "classes", py::str(classes));
        requireValue(box, "method", py::str(method));
        requireValue(box, "fill_rings", py::int_(fillRings));
        requireValue(box, "fragment_cells", py::int_(fragmentCells));
        GroundRasterParameterBox settings;
        settings.cell_size = cellSize;
        settings.classes = Vantor::MultiRange<double>(classes);
        settings.fill_rings = fillRings;
        settings.fragment_cells = fragmentCells;
        settings.height_field = heightField;
        settings.method = method;
        py::gil_scoped_release released;
        return Cloud{groundRaster(*cloud.grid, settings, Raster::coordinateSystemOf(*cloud.grid))};
      },
      py::arg("cloud"), py::arg("cell_size"), py::arg("classes") = "2", py::arg("fill_rings") = 5,
      py::arg("fragment_cells") = 256, py::arg("height_field") = "Height",
      py::arg("method") = "lowest",
      "A ground raster: the lowest z of the ground points in every cell (or a TIN or inverse "
      "distance weights at its centre), gaps filled from the nearest ring of measured cells "
      "(CellType 0 measured, 4 filled, 1 no data); it covers every point of the cloud.\n\n"
      "Parameters:\n"
      "    cloud: the classified cloud (positions in metres)\n"
      "    cell_size: edge of a cell in metres, positive\n"
      "    classes: the ground classes (a range text)\n"
      "    fill_rings: how far gaps are filled, in cells, 0 to 1000\n"
      "    fragment_cells: cells of a fragment along x and y, 1 to 65536\n"
      "    height_field: the field of the heights (metres)\n"
      "    method: lowest, tin (Delaunay triangulation, qhull) or idw");
  bindSurfaces(m);
  m.def("cells", &cellsOf, py::arg("raster"), py::arg("name"),
        "A cell field of a raster as a (rows, columns) array, one cell per pixel.\n\n"
        "Parameters:\n"
        "    raster: a raster cloud\n"
        "    name: the cell field (uint8, float32, float64, or vectors as (rows, columns, 3))");
}

} // namespace

void bindRaster(py::module_& m) {
  bindBox(m);
  bindGroundBox(m);
  bindRules(m);
  bindRuns(m);
  bindRasters(m);
}

} // namespace Quorvel::Python
