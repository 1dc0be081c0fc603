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
      .field("maxstep", &Shape::maxstep,
             "number of scales, 0 to 1000; scale k takes squared distances up to k * step")
      .field("step", &Shape::step,
             "scale increment in square metres (compared with squared distances), positive")
      .field("dimension", &Shape::dimension, "3: neighbours in x, y, z; 2: in x, y")
      .field("use_only_firstreturns", &Shape::use_only_firstreturns, "only first returns take part")
      .field("use_only_singlereturns", &Shape::use_only_singlereturns,
             "only single returns take part")
      .field("use_only_lastreturns", &Shape::use_only_lastreturns, "only last returns take part")
      .field("intensity_threshold", &Shape::intensity_threshold,
             "points of lower \"Amplitude\" (else \"Intensity\") take no part, 0 to 65535; 0: off")
      .field("verbose", &Shape::verbose,
             "bounding boxes and filter steps among the library's lines (see set_verbose)")
      .field("chartname", &Shape::chartname, "chart of the positions and of every field")
      .field("normalvector", &Shape::normalvector, "also write \"NormalVector\" (unit, z >= 0)")
      .field("linearity", &Shape::linearity, "also write \"Linearity\"")
      .field("sphericity", &Shape::sphericity, "also write \"Sphericity\"")
      .field("message", &Shape::message, "messages of the last run");
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
      .field("message", &Weights::message, "messages of the last run")
      .field("radius", &Weights::radius,
             "start radius of the neighbour search in metres, positive; doubles up to 5")
      .field("neighbours", &Weights::neighbours,
             "nearest neighbours in a weight (points), 1 to 1000000")
      .field("fragmentMaxWeights", &Weights::fragmentMaxWeights,
             "largest weight of every fragment processed with this box")
      .field("fragmentMedianWeights", &Weights::fragmentMedianWeights,
             "median weight of every fragment processed with this box");
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
      .field("keep", &Reduce::keep, "share of each fragment's points kept, 0 to 1")
      .field("threshold", &Reduce::threshold,
             "keep the points of normalised weight at least this instead (NaN: unset)")
      .field("keep_unweighted", &Reduce::keep_unweighted,
             "also keep the points of negative weight (edges, isolated points)")
      .field("message", &Reduce::message, "messages of the last run");
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
  BoxBinding<Box>(m, "SelectionParameterBox", "Settings of a selection.")
      .field("fieldname", &Box::fieldname, "the field whose values decide")
      .field("selection", &Box::selection,
             "value ranges in the field's unit (classes, metres), e.g. \"2:5,9\"; empty: none")
      .field("where", &Box::where,
             "an expression that must hold (docs/expressions.md), e.g. \"Classification == 2 "
             "&& Z > 300\"; with ranges too, both must hold; empty: none")
      .field("inverse", &Box::inverse, "select the points that the ranges and where leave out")
      .field("coordinate", &Box::coordinate,
             "component (0, 1 or 2) that decides for points and vectors; 2: z")
      .field("columns", &Box::columns, "fields of array2D's columns after x, y, z; empty: all")
      .field("columnNames", &Box::columnNames, "column names of the last array2D")
      .field("message", &Box::message, "messages of the last run");
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
      .field("where", &Assign::where,
             "the points that change: an expression (docs/expressions.md); empty: every point")
      .field("set", &Assign::set,
             "FIELD=VALUE items, VALUE a number or an expression, all evaluated before any is set")
      .field("create", &Assign::create,
             "FIELD:TYPE items (uint8, int32, float32, ...): fields made first, 0 everywhere")
      .field("message", &Assign::message, "messages of the last run");
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
      .field("range", &Regression::range,
             "signed distances from the plane in metres (positive above) that reclassify")
      .field("source", &Regression::source, "classes of the tree points (and the candidates)")
      .field("additional", &Regression::additional, "further classes of the tree points")
      .field("working_range", &Regression::working_range,
             "classes of the candidates; empty: those of source")
      .field("radius", &Regression::radius, "starting search radius in metres, positive")
      .field("target", &Regression::target, "class given; negative: 100 added to the class")
      .field("maximum_iteration", &Regression::maximum_iteration, "largest number of rounds")
      .field("reset", &Regression::reset, "0 or more: every class set to this first; -1: kept")
      .field("quantile", &Regression::quantile,
             "percentage (0 to 100) of the lowest neighbours left out of the plane fit")
      .field("dimension", &Regression::dimension, "\"2D\": neighbours in x, y; \"3D\": x, y, z")
      .field("fieldname", &Regression::fieldname, "printed only: \"Classification\" is rewritten")
      .field("message", &Regression::message, "messages of the last run");
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
      .field("mode", &Extrapolation::mode,
             "\"planarregression\", \"threshold\", \"classification\" or \"constant\"")
      .field("extrapolation_class", &Extrapolation::extrapolation_class,
             "class (0 to 255) of a grown point")
      .field("source", &Extrapolation::source, "classes of the seeds")
      .field("target", &Extrapolation::target, "classes that may change")
      .field("radius", &Extrapolation::radius, "search radius of every candidate in metres")
      .field("maximum_iteration", &Extrapolation::maximum_iteration,
             "largest number of rounds, 0 to 1000000")
      .field("dimension", &Extrapolation::dimension, "\"2D\": seeds in x, y; \"3D\": x, y, z")
      .field("range", &Extrapolation::range,
             "planarregression: signed distances from the plane in metres that let a point grow")
      .field("quantile", &Extrapolation::quantile,
             "planarregression: percentage (0 to 100) of the lowest seeds left out")
      .field("threshold", &Extrapolation::threshold,
             "threshold: largest height difference from the nearest seed in metres")
      .field("message", &Extrapolation::message, "messages of the last run");
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
      .field("method", &Filter::method, "\"smrf\": the simple morphological filter")
      .field("cell_size", &Filter::cell_size, "edge of the cells of the surface in metres")
      .field("slope", &Filter::slope, "largest terrain slope, rise over run")
      .field("window", &Filter::window, "radius of the largest opening in metres")
      .field("threshold", &Filter::threshold, "height from the terrain still ground, in metres")
      .field("scalar", &Filter::scalar, "growth of the threshold with the local slope")
      .field("ignore", &Filter::ignore, "classes that take no part (noise)")
      .field("reset", &Filter::reset, "every point not ignored becomes 2 or 1")
      .field("message", &Filter::message, "the error of the last run");
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

// A transfer box's bands as {squared distance: class} and its offset as (x, y, z).
void bindTransferFields(BoxBinding<ClassificationTransferParameterBox>& box) {
  using Transfer = ClassificationTransferParameterBox;
  using Triple = std::array<double, 3>;
  box.field("radius", &Transfer::radius, "search radius in metres, positive")
      .field("assignment", &Transfer::assignment,
             "distance bands: {squared band radius in square metres: class}")
      .field("hasAssignment", &Transfer::hasAssignment, "bands instead of copying classes")
      .field("maxradius", &Transfer::maxradius, "largest radius of expand, in metres, positive")
      .field("dimension", &Transfer::dimension, "3: search in x, y, z; 2: in x, y")
      .field("fieldname", &Transfer::fieldname, "per-point class field (uint8)")
      .field("onetree", &Transfer::onetree,
             "one tree over the whole source (classificationTransferOLD only)")
      .field("positions", &Transfer::positions,
             "also carry the nearest source position (classificationTransferOLD only)")
      .field("expand", &Transfer::expand, "one-tree mode: double the radius up to maxradius")
      .field("unclassify", &Transfer::unclassify, "target classes set to 0 first")
      .field("source", &Transfer::source, "source classes that enter the tree")
      .field("target", &Transfer::target, "target classes that are rewritten")
      .property(
          "offset",
          [](const Transfer& b) {
            return Triple{b.offset.x, b.offset.y, b.offset.z};
          },
          [](Transfer& b, const Triple& t) {
            b.offset = {t[0], t[1], t[2]};
          },
          "translation (x, y, z) in metres from source to target coordinates")
      .field("sourcefilename", &Transfer::sourcefilename, "name of the source, printed only")
      .field("message", &Transfer::message, "every error text of the runs, in order")
      .field("threads", &Transfer::threads,
             "worker threads; 0 or less, or more than the machine has: all but one");
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
      .field("radius", &Box::radius, "search radius in metres, positive")
      .field("mode", &Box::mode, "search mode text")
      .field("stripwise", &Box::stripwise, "search strip by strip instead of the whole cloud")
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
