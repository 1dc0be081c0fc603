// Quorvel for Python: raster preparation and mapping, and fields carried from grid to grid.
#include "boxes.hpp"

#include "quorvel/raster/raster.hpp"

#include <pybind11/stl.h>

#include <array>
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
      .field("step", &Box::step)
      .field("unclassify", &Box::unclassify)
      .field("height", &Box::height)
      .field("heightfieldname", &Box::heightfieldname)
      .field("cellsize", &Box::cellsize)
      .field("rastersize", &Box::rastersize)
      .field("constantclasses", &Box::constantclasses)
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
          });
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
      "The class after the band rule with both tests (cls_out when neither holds).");
  m.def(
      "mapClassificationStep",
      [](double low, double high, const Triple& p, double groundHeight, int cls, int cls_out) {
        auto out = static_cast<std::uint8_t>(cls_out);
        mapClassificationStep(low, high, pointOf(p), groundHeight, cls, out);
        return static_cast<int>(out);
      },
      py::arg("low"), py::arg("high"), py::arg("p"), py::arg("groundHeight"), py::arg("cls"),
      py::arg("cls_out"), "The class after the step rule (cls_out when it does not hold).");
}

// Raises when a run that returns a flag failed; its messages went to standard output.
void require(bool ok, const std::string& what) {
  if (!ok)
    raise(what + " failed (see the messages on standard output)");
}

void bindRuns(py::module_& m) {
  m.def(
      "prepareRaster",
      [](const std::string& path, Box& box) {
        Cloud raster;
        bool ok = false;
        {
          py::gil_scoped_release released;
          ok = prepareRaster(path, raster.grid, box);
        }
        require(ok, "prepareRaster of " + path);
        return raster;
      },
      py::arg("path"), py::arg("box"), "The raster of a bundle file, prepared.");
  m.def(
      "prepareRaster",
      [](Cloud& raster, Box& box) {
        py::gil_scoped_release released;
        return prepareRaster(raster.grid, box);
      },
      py::arg("raster"), py::arg("box"), "Prepares a raster already read.");
  m.def(
      "mapData",
      [](Cloud& cloud, Cloud& raster, const Box& box) {
        py::gil_scoped_release released;
        return mapData(cloud.grid, raster.grid, box);
      },
      py::arg("cloud"), py::arg("raster"), py::arg("box"),
      "Classes by height bands, or \"CanopyHeight\", from a prepared raster.");
  m.def(
      "mapData",
      [](const std::vector<std::string>& files, const std::string& rasterFile, Box& box) {
        py::gil_scoped_release released;
        return mapData(files, rasterFile, box);
      },
      py::arg("files"), py::arg("rasterFile"), py::arg("box"),
      "Maps a raster file onto every grid of the bundle files, writing each back in place.");
  m.def(
      "mapSourceToTarget",
      [](Cloud& source, const std::string& sourceField, Cloud& target,
         const std::string& targetField, double radius) {
        std::string message;
        {
          py::gil_scoped_release released;
          message = mapSourceToTarget(*source.grid, sourceField, *target.grid, targetField, radius);
        }
        if (!message.empty())
          raise(message);
      },
      py::arg("source"), py::arg("sourceField"), py::arg("target"), py::arg("targetField"),
      py::arg("radius"), "A field of source onto target's cells by the nearest point in x-y.");
}

} // namespace

void bindRaster(py::module_& m) {
  bindBox(m);
  bindRules(m);
  bindRuns(m);
}

} // namespace Quorvel::Python
