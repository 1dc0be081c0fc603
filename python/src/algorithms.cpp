// SPDX-License-Identifier: BSD-3-Clause
// Quorvel for Python: the algorithms with their parameter boxes. Boxes keep the C++ defaults;
// their value ranges read and take the range texts ("2:5,9"). Runs release the GIL, and a run
// that reports an error raises quorvel.Error with the message.
#include "boxes.hpp"

#include "io/files.hpp"
#include "quorvel/classification/classification.hpp"
#include "quorvel/features/features.hpp"
#include "quorvel/geometry/geometry.hpp"
#include "quorvel/metadata/metadata.hpp"
#include "quorvel/selection/selection.hpp"
#include "quorvel/terrain/terrain.hpp"

#include <pybind11/stl.h>

#include <array>
#include <optional>

namespace Quorvel::Python {

namespace {

// Shape factors: planarity, linearity, sphericity and normals.
void bindShapeFactors(py::module_& m) {
  using Shape = ShapeFactorComputationParameterBox;
  BoxBinding<Shape>(m, "ShapeFactorComputationParameterBox", "Settings of shape factors.")
      .describedFields();
  m.def(
      "shapeFactorComputation",
      [](Cloud& c, Shape& box) {
        requireBox("ShapeFactorComputationParameterBox", box);
        return checked(box.message, [&] { return shapeFactorComputation(c.grid, box, nullptr); });
      },
      py::arg("cloud"), py::arg("box"),
      "Planarity (and on request linearity, sphericity, normals) of every point.\n\n"
      "Writes \"Planarity\" (float32, 0 to 1) and the fields the box asks for, at the scale that "
      "makes each point's neighbourhood most planar.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres)\n"
      "    box: ShapeFactorComputationParameterBox (step in square metres, maxstep scales)\n"
      "Returns the run's messages; raises Error when the run reports one.");
}

// Reduction weights, from shape factors.
void bindReductionWeights(py::module_& m) {
  using Weights = PointCloudReductionParameterBox;
  BoxBinding<Weights>(m, "PointCloudReductionParameterBox", "Settings of reduction weights.")
      .describedFields();
  m.def(
      "computePointCloudReductionWeights",
      [](Cloud& c, Weights& box) {
        requireBox("PointCloudReductionParameterBox", box);
        return checked(box.message, [&] { return computePointCloudReductionWeights(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"),
      "\"Weights\" (float32, divided by the median; -1: no smooth surface) of every point.\n\n"
      "Needs \"Planarity\" and \"NormalVector\" (shapeFactorComputation with normalvector).\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres)\n"
      "    box: PointCloudReductionParameterBox (radius in metres, neighbours in points)");
}

// Thinning by weight, to a new cloud or to a file.
void bindReduction(py::module_& m) {
  using Reduce = PointCloudSizeReductionParameterBox;
  BoxBinding<Reduce>(m, "PointCloudSizeReductionParameterBox", "Settings of thinning by weight.")
      .describedFields();
  m.def(
      "reducedPointCloud",
      [](Cloud& c, Reduce& box) {
        requireBox("PointCloudSizeReductionParameterBox", box);
        return newCloud(box.message, [&] { return reducedPointCloud(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"),
      "The points a thinning by \"Weights\" keeps, as a new cloud with all their fields.\n\n"
      "Parameters:\n"
      "    cloud: a cloud with \"Weights\" (computePointCloudReductionWeights)\n"
      "    box: PointCloudSizeReductionParameterBox (keep: a share 0 to 1)");
  m.def(
      "reduceSizeOfPointCloud",
      [](Cloud& c, Reduce& box, const std::string& path) {
        requireBox("PointCloudSizeReductionParameterBox", box);
        return checked(box.message, [&] {
          return Files::reduceSizeOfPointCloud(c.grid, box, path, writeOptions(path));
        });
      },
      py::arg("cloud"), py::arg("box"), py::arg("path"),
      "The thinned cloud written to a file.\n\n"
      "Parameters:\n"
      "    cloud: a cloud with \"Weights\"\n"
      "    box: PointCloudSizeReductionParameterBox (keep: a share 0 to 1)\n"
      "    path: the file written: a bundle for .h5 and .hdf5, LAS otherwise\n"
      "Returns \"reduced <in> points to <kept> (<share>%)\".");
}

void bindFeatures(py::module_& m) {
  bindShapeFactors(m);
  bindReductionWeights(m);
  bindReduction(m);
}

void bindSelection(py::module_& m) {
  using Box = SelectionParameterBox;
  BoxBinding<Box>(m, "SelectionParameterBox", "Settings of a selection.").describedFields();
  m.def(
      "computeSelection",
      [](Cloud& c, Box& box) {
        requireBox("SelectionParameterBox", box);
        return newCloud(box.message, [&] { return computeSelection(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"),
      "The selected points with all their fields, as a new cloud.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud\n"
      "    box: SelectionParameterBox (field, value ranges in its unit, inverse)");
  m.def(
      "array2D",
      [](Cloud& c, Box& box) {
        requireBox("SelectionParameterBox", box);
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
      "The selected points as rows of x, y, z (metres) and the columns' fields.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud\n"
      "    box: SelectionParameterBox; its columnNames receive the column names");

  using Assign = FieldAssignmentParameterBox;
  BoxBinding<Assign>(m, "FieldAssignmentParameterBox", "Settings of an assignment.")
      .describedFields();
  m.def(
      "assignFields",
      [](Cloud& c, Assign& box) {
        return checked(box.message, [&] { return assignFields(c.grid, box); });
      },
      py::arg("cloud"), py::arg("box"),
      "Gives fields values where an expression holds, in place.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud\n"
      "    box: FieldAssignmentParameterBox (where, set, create)\n"
      "Returns \"assigned F fields at P points\"; raises Error naming a value that does not fit.");
}

void bindRegression(py::module_& m) {
  using Regression = PlanarRegressionParameterBox;
  BoxBinding<Regression>(m, "PlanarRegressionParameterBox", "Settings of planar regression.")
      .describedFields();
  m.def(
      "planarRegressionOfGrid",
      [](Cloud& c, Regression& box) {
        requireBox("PlanarRegressionParameterBox", box);
        return checked(box.message, [&] { return planarRegressionOfGrid(c.grid, box, nullptr); });
      },
      py::arg("cloud"), py::arg("box"),
      "Classes by the distance from local planes, in rounds (grows ground from seeds).\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres), \"Classification\" rewritten\n"
      "    box: PlanarRegressionParameterBox (radius and range in metres, classes as ranges)");
}

// Extrapolation: classes grown from seeds.
void bindExtrapolation(py::module_& m) {
  using Extrapolation = ExtrapolationParameterBox;
  BoxBinding<Extrapolation>(m, "ExtrapolationParameterBox", "Settings of an extrapolation.")
      .describedFields();
  m.def(
      "extrapolation",
      [](Cloud& c, Extrapolation& box) {
        requireBox("ExtrapolationParameterBox", box);
        return checked(box.message, [&] { return extrapolation(c.grid, box, nullptr); });
      },
      py::arg("cloud"), py::arg("box"),
      "A class spread from seed points into the points near them, round after round.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres), \"Classification\" rewritten\n"
      "    box: ExtrapolationParameterBox (radius in metres, classes as ranges)");
}

// The ground filter and the relative heights of x-y squares.
void bindGroundFilter(py::module_& m) {
  using Filter = GroundFilterParameterBox;
  BoxBinding<Filter>(m, "GroundFilterParameterBox", "Settings of the ground filter.")
      .describedFields();
  m.def(
      "groundFilter",
      [](Cloud& c, Filter& box) {
        requireBox("GroundFilterParameterBox", box);
        std::size_t found = 0;
        checked(box.message, [&] {
          found = groundFilter(c.grid, box);
          return std::string();
        });
        return found;
      },
      py::arg("cloud"), py::arg("box"),
      "The ground points of the cloud as class 2, the others of classes 0 to 2 as class 1; "
      "returns how many are ground.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres), \"Classification\" rewritten\n"
      "    box: GroundFilterParameterBox (lengths in metres, classes as ranges)");
  m.def(
      "relativeHeightAndBelows",
      [](Cloud& c, double squareHalfWidth, const std::optional<std::string>& classes) {
        requireValue("relativeHeightAndBelows", "squareHalfWidth", py::float_(squareHalfWidth));
        std::optional<Vantor::MultiRange<double>> range;
        if (classes) {
          requireValue("relativeHeightAndBelows", "classes", py::str(*classes));
          range.emplace(*classes);
        }
        std::string message;
        {
          py::gil_scoped_release released;
          message = relativeHeightAndBelows(c.grid, squareHalfWidth, range ? &*range : nullptr);
        }
        if (!message.empty())
          raise(message);
      },
      py::arg("cloud"), py::arg("squareHalfWidth"), py::arg("classes") = std::nullopt,
      "\"RelativeHeight\" (float32, metres above the lowest point) and \"RelativeBelows\" "
      "(uint8, share of points below, 0 to 255) of every point's x-y square.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres)\n"
      "    squareHalfWidth: half the side of the square in metres, positive\n"
      "    classes: classes that take part (a range text such as \"2:5\"); None: every point");
}

void bindTerrain(py::module_& m) {
  bindRegression(m);
  bindExtrapolation(m);
  bindGroundFilter(m);
}

// A transfer box's fields, its offset as (x, y, z).
void bindTransferFields(BoxBinding<ClassificationTransferParameterBox>& box) {
  using Transfer = ClassificationTransferParameterBox;
  using Triple = std::array<double, 3>;
  box.property(
         "offset",
         [](const Transfer& b) {
           return Triple{b.offset.x, b.offset.y, b.offset.z};
         },
         [](Transfer& b, const Triple& t) {
           b.offset = {t[0], t[1], t[2]};
         })
      .describedFields();
}

void bindTransferAndMetadata(py::module_& m) {
  using Transfer = ClassificationTransferParameterBox;
  {
    BoxBinding<Transfer> box(m, "ClassificationTransferParameterBox",
                             "Settings of a transfer, built from a distance/class text.");
    box.cls().def(py::init([](const std::string& text) {
                    requireValue("classificationTransfer", "text", py::str(text));
                    return Transfer(text);
                  }),
                  py::arg("text") = "",
                  "The box of a distance/class text: \"1\" (copy classes within 1 m) or "
                  "\"0.5=2;1=3\" (class 2 within 0.5 m, class 3 within 1 m).");
    bindTransferFields(box);
  }
  // The docstrings live as long as the module: pybind11 keeps the pointers.
  static const std::string runDoc =
      "Parameters:\n"
      "    source: the classified cloud (positions in metres)\n"
      "    target: the cloud whose classes are rewritten\n"
      "    box: ClassificationTransferParameterBox (radius in metres)";
  static const std::string transferDoc =
      "Classes from source onto target by nearest neighbours.\n\n" + runDoc;
  static const std::string oldDoc =
      "The earlier transfer (one tree, expand and positions).\n\n" + runDoc;
  m.def(
      "classificationTransfer",
      [](Cloud& source, Cloud& target, Transfer& box) {
        requireBox("ClassificationTransferParameterBox", box);
        return checked(box.message,
                       [&] { return classificationTransfer(source.grid, target.grid, box); });
      },
      py::arg("source"), py::arg("target"), py::arg("box"), transferDoc.c_str());
  m.def(
      "classificationTransferOLD",
      [](Cloud& source, Cloud& target, Transfer& box) {
        requireBox("ClassificationTransferParameterBox", box);
        return checked(box.message,
                       [&] { return classificationTransferOLD(source.grid, target.grid, box); });
      },
      py::arg("source"), py::arg("target"), py::arg("box"), oldDoc.c_str());
  m.def(
      "setCellSize",
      [](Cloud& c) {
        py::gil_scoped_release released;
        return setCellSize(c.grid, nullptr);
      },
      py::arg("cloud"),
      "\"CellTensor\" (float32, metres) of every point from the density of its voxel.\n\n"
      "Parameters:\n"
      "    cloud: the point cloud (positions in metres)\n"
      "Returns a report naming the point and fragment counts.");
}

void bindNeighbours(py::module_& m) {
  using Box = ComputeNeighboursParameterBox;
  BoxBinding<Box>(m, "ComputeNeighboursParameterBox", "Settings of a neighbourhood search.")
      .describedFields()
      .cls()
      .def("different", &Box::different, py::arg("other"),
           "True when a result computed with other cannot be reused: radii more than 0.001 m "
           "apart, another mode or another stripwise flag.");
}

} // namespace

void bindAlgorithms(py::module_& m) {
  bindFeatures(m);
  bindSelection(m);
  bindTerrain(m);
  bindTransferAndMetadata(m);
  bindNeighbours(m);
}

} // namespace Quorvel::Python
