// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: the everyday filters: crop, outliers, thinning and reprojection.
#include "boxes.hpp"

#include "io/las.hpp"
#include "io/raster.hpp"
#include "quorvel/filters/filters.hpp"

#include <pybind11/stl.h>

namespace Quorvel::Python {

namespace {

void bindCrop(py::module_& m) {
  using Box = CropParameterBox;
  BoxBinding<Box>(m, "CropParameterBox", "Settings of a crop.")
      .property(
          "polygons",
          [](const Box& b) {
            std::vector<std::vector<Ring>> out;
            for (const Polygon& p : b.polygons)
              out.push_back(p.rings);
            return out;
          },
          [](Box& b, const std::vector<std::vector<Ring>>& polygons) {
            b.polygons.clear();
            for (const auto& rings : polygons)
              b.polygons.push_back(Polygon{rings});
          })
      .describedFields();
  m.def(
      "crop",
      [](Cloud& c, Box& box) { return newCloud(box.message, [&] { return crop(c.grid, box); }); },
      py::arg("cloud"), py::arg("box"),
      "The points inside the box or the polygons (or outside, inverse), as a new cloud.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud\n"
      "    box: CropParameterBox (a box or polygons in the cloud's units)");
  m.def(
      "readPolygons",
      [](const std::string& path, const std::string& layer, const std::string& filter,
         const std::string& wkt) {
        std::vector<std::vector<Ring>> out;
        for (const Polygon& p : Raster::readPolygons(path, layer, filter, wkt))
          out.push_back(p.rings);
        return out;
      },
      py::arg("path"), py::arg("layer") = "", py::arg("feature_filter") = "", py::arg("crs") = "",
      "The polygons of a vector file GDAL reads (every feature of the layer passing OGR's "
      "attribute filter), carried into crs when given: CropParameterBox.polygons.\n\n"
      "Parameters:\n"
      "    path: the vector file (GeoPackage, GeoJSON, Shapefile, ...)\n"
      "    layer: the layer's name; empty: the first\n"
      "    feature_filter: OGR's attribute filter (an SQL WHERE clause); empty: all\n"
      "    crs: the cloud's system (WKT, EPSG:n); empty: the vertices as they are");
}

void bindOutliers(py::module_& m) {
  using Box = OutlierParameterBox;
  BoxBinding<Box>(m, "OutlierParameterBox", "Settings of the outlier rules.").describedFields();
  m.def(
      "filterOutliers",
      [](Cloud& c, Box& box) {
        requireBox("OutlierParameterBox", box);
        return newCloud(box.message, [&] { return filterOutliers(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"),
      "The cloud with outliers classified (the same cloud) or removed (a new cloud).\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres)\n"
      "    box: OutlierParameterBox (the rule and what happens to outliers)");
}

void bindThin(py::module_& m) {
  using Box = ThinParameterBox;
  BoxBinding<Box>(m, "ThinParameterBox", "Settings of thinning.").describedFields();
  m.def(
      "thin",
      [](Cloud& c, Box& box) {
        requireBox("ThinParameterBox", box);
        return newCloud(box.message, [&] { return thin(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"),
      "The points kept, as a new cloud.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud\n"
      "    box: ThinParameterBox (mode and its setting)");
}

void bindReproject(py::module_& m) {
  using Box = ReprojectionParameterBox;
  BoxBinding<Box>(m, "ReprojectionParameterBox", "Settings of a reprojection.").describedFields();
  m.def(
      "reproject",
      [](Cloud& c, Box& box) {
        auto info = Las::fileInfo(*c.grid);
        const std::string from =
            box.source.empty() ? Raster::coordinateSystemOf(*c.grid) : box.source;
        if (from.empty())
          raise("the cloud has no coordinate system: set source");
        const auto t = Raster::transformation(from, box.target);
        if (info)
          box.inputScale = info->header.scale;
        checked(box.message, [&] {
          reproject(c.grid, box, t.factory);
          return std::string();
        });
        Las::FileInfo out = info ? *info : Las::FileInfo{};
        out.header.scale = box.scale;
        out.header.offset = box.offset;
        Raster::setCoordinateSystem(out, t.target);
        Las::setFileInfo(*c.grid, out);
      },
      py::arg("cloud"), py::arg("box"),
      "Carries the cloud's positions into box.target in place, with the scale, offset and "
      "coordinate-system records a written LAS file gets.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud\n"
      "    box: ReprojectionParameterBox (target and source systems); receives scale and offset");
}

} // namespace

void bindFilters(py::module_& m) {
  bindCrop(m);
  bindOutliers(m);
  bindThin(m);
  bindReproject(m);
}

} // namespace Quorvel::Python
