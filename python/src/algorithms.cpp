// Quorvel for Python: the algorithms with their parameter boxes. Boxes keep the C++ defaults;
// their value ranges read and take the range texts ("2:5,9"). Runs release the GIL, and a run
// that reports an error raises quorvel.Error with the message.
#include "boxes.hpp"

#include "quorvel/classification/classification.hpp"
#include "quorvel/features/features.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/selection/selection.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <pybind11/stl.h>

#include <optional>

namespace Quorvel::Python {

namespace {

void bindFeatures(py::module_& m) {
  using Shape = ShapeFactorComputationParameterBox;
  BoxBinding<Shape>(m, "ShapeFactorComputationParameterBox", "Settings of shape factors.")
      .field("maxstep", &Shape::maxstep)
      .field("step", &Shape::step)
      .field("dimension", &Shape::dimension)
      .field("use_only_firstreturns", &Shape::use_only_firstreturns)
      .field("use_only_singlereturns", &Shape::use_only_singlereturns)
      .field("use_only_lastreturns", &Shape::use_only_lastreturns)
      .field("intensity_threshold", &Shape::intensity_threshold)
      .field("verbose", &Shape::verbose)
      .field("chartname", &Shape::chartname)
      .field("normalvector", &Shape::normalvector)
      .field("linearity", &Shape::linearity)
      .field("sphericity", &Shape::sphericity)
      .field("message", &Shape::message);
  m.def(
      "shapeFactorComputation",
      [](Cloud& c, Shape& box) {
        return checked(box.message, [&] { return shapeFactorComputation(c.grid, box, nullptr); });
      },
      py::arg("cloud"), py::arg("box"),
      "Planarity (and on request linearity, sphericity, normals) of every point.");

  using Weights = PointCloudReductionParameterBox;
  BoxBinding<Weights>(m, "PointCloudReductionParameterBox", "Settings of reduction weights.")
      .field("message", &Weights::message)
      .field("radius", &Weights::radius)
      .field("neighbours", &Weights::neighbours)
      .field("fragmentMaxWeights", &Weights::fragmentMaxWeights)
      .field("fragmentMedianWeights", &Weights::fragmentMedianWeights);
  m.def(
      "computePointCloudReductionWeights",
      [](Cloud& c, Weights& box) {
        return checked(box.message, [&] { return computePointCloudReductionWeights(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"), "\"Weights\" from \"Planarity\" and \"NormalVector\".");

  using Reduce = PointCloudSizeReductionParameterBox;
  BoxBinding<Reduce>(m, "PointCloudSizeReductionParameterBox", "Settings of thinning by weight.")
      .field("keep", &Reduce::keep)
      .field("threshold", &Reduce::threshold)
      .field("keep_unweighted", &Reduce::keep_unweighted)
      .field("message", &Reduce::message);
  m.def(
      "reducedPointCloud",
      [](Cloud& c, Reduce& box) {
        return newCloud(box.message, [&] { return reducedPointCloud(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"), "The points a thinning keeps, as a new cloud.");
  m.def(
      "reduceSizeOfPointCloud",
      [](Cloud& c, Reduce& box, const std::string& path) {
        return checked(box.message, [&] { return reduceSizeOfPointCloud(c.grid, box, path); });
      },
      py::arg("cloud"), py::arg("box"), py::arg("path"), "The thinned cloud written to a file.");
}

void bindSelection(py::module_& m) {
  using Box = SelectionParameterBox;
  BoxBinding<Box>(m, "SelectionParameterBox", "Settings of a selection.")
      .field("fieldname", &Box::fieldname)
      .field("selection", &Box::selection)
      .field("inverse", &Box::inverse)
      .field("coordinate", &Box::coordinate)
      .field("columns", &Box::columns)
      .field("columnNames", &Box::columnNames)
      .field("message", &Box::message);
  m.def(
      "computeSelection",
      [](Cloud& c, Box& box) {
        return newCloud(box.message, [&] { return computeSelection(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"), "The selected points with all their fields.");
  m.def(
      "array2D",
      [](Cloud& c, Box& box) {
        Basalt::StrongPtr<Tressel::MemArray<2, double>> table;
        checked(box.message, [&] {
          table = array2D(c.grid, box);
          return std::string();
        });
        const auto extents = table->multiExtents();
        py::array_t<double> out(
            {static_cast<py::ssize_t>(extents[1]), static_cast<py::ssize_t>(extents[0])});
        std::copy(table->data(), table->data() + table->size(), out.mutable_data());
        return out;
      },
      py::arg("cloud"), py::arg("box"),
      "The selected points as rows of x, y, z and the columns' fields (names in columnNames).");
}

void bindTerrain(py::module_& m) {
  using Regression = PlanarRegressionParameterBox;
  BoxBinding<Regression>(m, "PlanarRegressionParameterBox", "Settings of planar regression.")
      .field("range", &Regression::range)
      .field("source", &Regression::source)
      .field("additional", &Regression::additional)
      .field("working_range", &Regression::working_range)
      .field("radius", &Regression::radius)
      .field("target", &Regression::target)
      .field("maximum_iteration", &Regression::maximum_iteration)
      .field("reset", &Regression::reset)
      .field("quantile", &Regression::quantile)
      .field("dimension", &Regression::dimension)
      .field("fieldname", &Regression::fieldname)
      .field("message", &Regression::message);
  m.def(
      "planarRegressionOfGrid",
      [](Cloud& c, Regression& box) {
        return checked(box.message, [&] { return planarRegressionOfGrid(c.grid, box, nullptr); });
      },
      py::arg("cloud"), py::arg("box"), "Classes by the distance from local planes, in rounds.");

  using Extrapolation = ExtrapolationParameterBox;
  BoxBinding<Extrapolation>(m, "ExtrapolationParameterBox", "Settings of an extrapolation.")
      .field("mode", &Extrapolation::mode)
      .field("extrapolation_class", &Extrapolation::extrapolation_class)
      .field("source", &Extrapolation::source)
      .field("target", &Extrapolation::target)
      .field("radius", &Extrapolation::radius)
      .field("maximum_iteration", &Extrapolation::maximum_iteration)
      .field("dimension", &Extrapolation::dimension)
      .field("range", &Extrapolation::range)
      .field("quantile", &Extrapolation::quantile)
      .field("threshold", &Extrapolation::threshold)
      .field("message", &Extrapolation::message);
  m.def(
      "extrapolation",
      [](Cloud& c, Extrapolation& box) {
        return checked(box.message, [&] { return extrapolation(c.grid, box, nullptr); });
      },
      py::arg("cloud"), py::arg("box"), "A class spread from seeds into nearby points.");
  m.def(
      "relativeHeightAndBelows",
      [](Cloud& c, double squareHalfWidth, const std::optional<std::string>& classes) {
        std::optional<Vantor::MultiRange<double>> range;
        if (classes)
          range.emplace(*classes);
        std::string message;
        {
          py::gil_scoped_release released;
          message = relativeHeightAndBelows(c.grid, squareHalfWidth, range ? &*range : nullptr);
        }
        if (!message.empty())
          raise(message);
      },
      py::arg("cloud"), py::arg("squareHalfWidth"), py::arg("classes") = std::nullopt,
      "\"RelativeHeight\" above the lowest point and \"RelativeBelows\" of every point's x-y "
      "square.");
}

void bindTransferAndMetadata(py::module_& m) {
  using Transfer = ClassificationTransferParameterBox;
  py::class_<Transfer>(m, "ClassificationTransferParameterBox", "Settings of a transfer.")
      .def(py::init<const std::string&>(), py::arg("text") = "",
           "The box of a distance/class text (\"1\" or \"0.5=2;1=3\").")
      .def_readwrite("radius", &Transfer::radius)
      .def_readwrite("dimension", &Transfer::dimension)
      .def_readwrite("fieldname", &Transfer::fieldname)
      .def_readwrite("unclassify", &Transfer::unclassify)
      .def_readwrite("threads", &Transfer::threads)
      .def_property(
          "source", [](const Transfer& b) { return b.source.to_string(); },
          [](Transfer& b, const std::string& t) { b.source = Vantor::MultiRange<double>(t); })
      .def_property(
          "target", [](const Transfer& b) { return b.target.to_string(); },
          [](Transfer& b, const std::string& t) { b.target = Vantor::MultiRange<double>(t); })
      .def_readwrite("message", &Transfer::message)
      .def("print", &Transfer::print)
      .attr("_fields") = py::make_tuple("radius", "dimension", "fieldname", "unclassify", "threads",
                                        "source", "target", "message");
  m.def(
      "classificationTransfer",
      [](Cloud& source, Cloud& target, Transfer& box) {
        return checked(box.message,
                       [&] { return classificationTransfer(source.grid, target.grid, box); });
      },
      py::arg("source"), py::arg("target"), py::arg("box"),
      "Classes from source onto target by nearest neighbours.");
  m.def(
      "classificationTransferOLD",
      [](Cloud& source, Cloud& target, Transfer& box) {
        return checked(box.message,
                       [&] { return classificationTransferOLD(source.grid, target.grid, box); });
      },
      py::arg("source"), py::arg("target"), py::arg("box"),
      "The earlier transfer (one tree, expand and positions).");
  m.def(
      "setCellSize",
      [](Cloud& c) {
        py::gil_scoped_release released;
        return setCellSize(c.grid, nullptr);
      },
      py::arg("cloud"), "\"CellSize\" of every point from the density of its voxel.");
}

} // namespace

void bindAlgorithms(py::module_& m) {
  bindFeatures(m);
  bindSelection(m);
  bindTerrain(m);
  bindTransferAndMetadata(m);
}

} // namespace Quorvel::Python
