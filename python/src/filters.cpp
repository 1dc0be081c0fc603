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
      .field("box", &Box::box, "(xmin, ymin, xmax, ymax), edges inside; used without polygons")
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
          },
          "polygons, each a list of rings of (x, y) vertices (outer ring first, then holes); "
          "their union is the area, boundaries inside")
      .field("inverse", &Box::inverse, "keep the points outside the area instead")
      .field("where", &Box::where, "an expression limiting the points tested (the others kept)")
      .field("message", &Box::message, "messages of the last run");
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
  BoxBinding<Box>(m, "OutlierParameterBox", "Settings of the outlier rules.")
      .field("method", &Box::method, "\"statistical\" or \"radius\"")
      .field("neighbours", &Box::neighbours, "K of the statistical rule")
      .field("multiplier", &Box::multiplier, "M: outlier when d_i > mu + M sigma")
      .field("radius", &Box::radius, "R of the radius rule (inclusive), metres")
      .field("minPoints", &Box::minPoints, "N: outlier with fewer other points within R")
      .field("classify", &Box::classify, "class given to outliers")
      .field("remove", &Box::remove, "drop the outliers instead")
      .field("where", &Box::where,
             "an expression limiting the points tested (all points stay neighbours)")
      .field("threads", &Box::threads, "0: all but one; results never depend on it")
      .field("outliers", &Box::outliers, "outliers found by the last run")
      .field("mean", &Box::mean, "mu of the last statistical run")
      .field("deviation", &Box::deviation, "sigma of the last statistical run")
      .field("message", &Box::message, "messages of the last run");
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
  BoxBinding<Box>(m, "ThinParameterBox", "Settings of thinning.")
      .field("mode", &Box::mode, "\"voxel\", \"random\" or \"every\"")
      .field("voxel", &Box::voxel, "side of the cubes, from the coordinate origin")
      .field("keep", &Box::keep, "first, lowest, highest or centre")
      .field("fraction", &Box::fraction, "probability of keeping a point (random)")
      .field("seed", &Box::seed, "seed of the SplitMix64 sequence (random)")
      .field("every", &Box::every, "N: the 1st, (N+1)th, ... point in file order")
      .field("message", &Box::message, "messages of the last run");
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
  BoxBinding<Box>(m, "ReprojectionParameterBox", "Settings of a reprojection.")
      .field("target", &Box::target, "the output's system: EPSG:n, WKT or a PROJ string")
      .field("source", &Box::source, "the input's system; empty: the cloud's own")
      .field("inputScale", &Box::inputScale,
             "the input's LAS scale (set from the cloud's LAS origin where it has one)")
      .field("exact", &Box::exact,
             "transform every point exactly instead of interpolating checked cells")
      .field("tolerance", &Box::tolerance,
             "largest error of an interpolated coordinate, a fraction of the output's scale")
      .field("threads", &Box::threads, "0: all but one")
      .field("scale", &Box::scale, "LAS scale chosen by the last run")
      .field("offset", &Box::offset, "LAS offset chosen by the last run")
      .field("message", &Box::message, "messages of the last run");
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
