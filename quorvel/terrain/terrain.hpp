// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: terrain algorithms. Planar regression of grids reclassifies points by their distance
// from a plane fitted to their neighbours, in rounds with growing per-point radii (typically to
// grow a ground class from seed points); the relative height and below boxes give every point its
// height above the lowest point of its square x-y neighbourhood and the share of that square's
// points lying below it.
#pragma once

#include "basalt/loader_progress.hpp"
#include "basalt/strong_ptr.hpp"
#include "quorvel/core/fields.hpp"
#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"
#include "vantor/bounding_box.hpp"
#include "vantor/multi_range.hpp"
#include "vantor/physical_space.hpp"

#include <string>

namespace Quorvel {

// Settings of a planar regression, its working range and its result text. The defaults grow a
// ground class: class 2 points are the seeds that carry the planes, and a candidate within 0.2 m
// of the plane through its seed neighbours becomes ground. Candidates are the classes of `source`
// unless the host puts others into working_range first (growing from seeds: "0:1").
struct PlanarRegressionParameterBox {
  // Signed distances from the fitted plane (positive above it, units of the positions) that
  // reclassify a candidate. 0.2 m is about twice the height noise of airborne ground returns.
  Vantor::MultiRange<double> range{"-0.2:0.2"};
  // Classes whose points enter the search tree and, while working_range is empty, the classes of
  // the candidates. 2 is the ground class of the LAS classification.
  Vantor::MultiRange<double> source{"2"};
  // Further classes whose points enter the search tree as neighbours only. None by default, so
  // that only ground carries the planes.
  Vantor::MultiRange<double> additional;
  // Classes of the candidates processed in every round; copied from `source` by the first call
  // that finds it empty, and kept from then on. Not printed.
  Vantor::MultiRange<double> working_range;
  // Starting search radius of every candidate (units of the positions). 1 m holds about 20
  // points of an airborne cloud of 0.4 m spacing; sparser places double it round by round.
  double radius = 1.0;
  // Class given to a candidate whose distance lies in range; negative: 100 is added to its class
  // instead (8-bit, wrapping), which marks points without choosing their class.
  int target = 2;
  // Largest number of rounds (0 changes nothing but the reset). Every round moves the grown
  // front by about one radius; 10 also lets a lonely point's radius grow 512-fold.
  int maximum_iteration = 10;
  // 0 or more: every class of a fragment is set to this value first. -1 keeps the classes, as
  // the seeds must be kept.
  int reset = -1;
  // Percentage of the lowest neighbours that the plane fit leaves out (0 to 100; any non-zero
  // value leaves out at least one). 0: seed ground points are trusted as they are.
  int quantile = 0;
  // "2D": neighbours within the radius in x and y (terrain is a height field); "3D": in x, y
  // and z. Any other text builds no tree, and every candidate finds nothing.
  std::string dimension = "2D";
  // Printed only: the regression always rewrites "Classification".
  std::string fieldname = "Classification";
  // Result text of planarRegressionOfGrid: the last per-fragment error, or empty.
  std::string message;

  // One line each, in this order: "ParameterBox.fieldname: ", ".range: ", ".source: ",
  // ".additional: ", ".radius: ", ".target: ", ".maximum_iteration: ", ".reset: ",
  // ".quantile: ", ".dimension: " (all with the "ParameterBox" prefix) and the value.
  void print() const;
  static constexpr auto fields();
};

constexpr auto PlanarRegressionParameterBox::fields() {
  using B = PlanarRegressionParameterBox;
  return describeBox(
      "PlanarRegressionParameterBox",
      field(&B::range, "range", "m", "ParameterBox.range: ",
            "signed distances from the plane in metres (positive above) that reclassify")
          .option("--range", "signed distances from the plane, in metres, that reclassify a "
                             "candidate (negative: write --range=-0.2:0.2)"),
      field(&B::source, "source", "",
            "ParameterBox.source: ", "classes of the tree points (and the candidates)")
          .option("--source", "classes of the points the planes are fitted to (the seeds), and "
                              "of the candidates"),
      field(&B::additional, "additional", "",
            "ParameterBox.additional: ", "further classes of the tree points")
          .option("--additional", "further classes of the points the planes are fitted to"),
      // Not printed.
      field(&B::working_range, "working_range", "", "",
            "classes of the candidates; empty: those of source")
          .option("--candidates",
                  "classes of the candidates, when not those of --source (growing: 0:1)"),
      field(&B::radius, "radius", "m",
            "ParameterBox.radius: ", "starting search radius in metres, positive")
          .option("--radius", "starting search radius in metres"),
      field(&B::target, "target", "",
            "ParameterBox.target: ", "class given; negative: 100 added to the class")
          .option("--target",
                  "class given to the points near the plane; negative: add 100 to their class"),
      field(&B::maximum_iteration, "maximum_iteration", "",
            "ParameterBox.maximum_iteration: ", "largest number of rounds")
          .option("--maximum-iteration", "largest number of rounds"),
      field(&B::reset, "reset", "",
            "ParameterBox.reset: ", "0 or more: every class set to this first; -1: kept")
          .option("--reset", "0 or more: set every class to this first (-1: keep the classes)"),
      field(&B::quantile, "quantile", "%", "ParameterBox.quantile: ",
            "percentage (0 to 100) of the lowest neighbours left out of the plane fit")
          .option("--quantile",
                  "percentage (0 to 100) of the lowest neighbours left out of a plane"),
      // --dimension takes 2, 3, 2D or 3D: bound by hand.
      field(&B::dimension, "dimension", "",
            "ParameterBox.dimension: ", "\"2D\": neighbours in x, y; \"3D\": x, y, z"),
      // Printed first.
      field(&B::fieldname, "fieldname", "",
            "ParameterBox.fieldname: ", "printed only: \"Classification\" is rewritten"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Reclassifies every fragment of grid's "Classification" field (created when the grid has none)
// one fragment after the other with planarRegressionOfMultiArray. A fragment without a class
// array gets a new one of zeros, and `source` becomes "0" in the box for the rest of the call
// and after it. A fragment without positions or without a bounding box is skipped, its error
// text replacing box.message. Returns box.message, or "ERROR: no f_vertices found" when the grid
// has no positions. progress, when given, hears the share of fragments done.
std::string planarRegressionOfGrid(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                   PlanarRegressionParameterBox& box,
                                   const Basalt::StrongPtr<Basalt::LoaderProgress>& progress);

// The rounds over one fragment: reset, then per round a tree (2-D or 3-D by box.dimension, over
// bbox) of the points whose class is in source or additional, and for every candidate whose
// neighbour count changed since its last round a plane fit over its neighbours and, when its
// distance from that plane lies in range, the target class. Candidates with 3 neighbours or fewer
// double their radius. Stops after maximum_iteration rounds, or when neither the largest radius
// nor the tree's size changed. The candidates are split into equal contiguous blocks over the
// library's threads, so the result does not depend on their number. Always true.
bool planarRegressionOfMultiArray(
    const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
    const Basalt::StrongPtr<Vantor::BoundingBox>& bbox, PlanarRegressionParameterBox& box,
    Tressel::MultiArray<1, unsigned char>& classes);

// Settings of an extrapolation, which spreads a class from seed points into the candidates near
// them, round after round, and its result text.
struct ExtrapolationParameterBox {
  // How a candidate decides: "planarregression" (within range of the plane through at least 3
  // seeds within radius: ground grows along the terrain and stops at steps), "threshold" (within
  // threshold in height of its nearest seed: flat surfaces such as roads or water grow, walls do
  // not), "classification" (the class of its nearest seed: several classes grow at once),
  // "constant" (any seed within radius).
  std::string mode = "planarregression";
  // The class a grown candidate takes (all modes but "classification"). 2: ground.
  int extrapolation_class = 2;
  // Classes of the seeds; points grown in earlier rounds are seeds as well.
  Vantor::MultiRange<double> source{"2"};
  // Classes that may change: the unclassified (0).
  Vantor::MultiRange<double> target{"0"};
  // Search radius of every candidate (units of the positions).
  double radius = 1.0;
  // Largest number of rounds; each grows the front by about one radius.
  int maximum_iteration = 10;
  // "2D": seeds within the radius in x and y; "3D": in x, y and z. 3D keeps the growth on the
  // ground under trees: a point a metre above the terrain has no seed within the radius, while
  // in 2D the plane through seeds and low vegetation grown before tilts up, round by round (on
  // forest data seeded with 10% of the ground, 9% of what 2D grew in 10 rounds lay more than
  // 2 m above the terrain, 0.02% of what 3D grew).
  std::string dimension = "3D";
  // planarregression: signed distances from the plane (positive above) that let a candidate grow.
  Vantor::MultiRange<double> range{"-0.2:0.2"};
  // planarregression: percentage of the lowest seeds left out of the plane fit.
  int quantile = 0;
  // threshold: largest height difference from the nearest seed.
  double threshold = 0.2;
  // Messages of the run.
  std::string message;

  // One line per field but the message, in order: "mode: ", "extrapolation_class: ",
  // "source: ", "target: ", "radius: ", "maximum_iteration: ", "dimension: ", "range: ",
  // "quantile: ", "threshold: " and the value.
  void print() const;
  static constexpr auto fields();
};

constexpr auto ExtrapolationParameterBox::fields() {
  using B = ExtrapolationParameterBox;
  return describeBox(
      "ExtrapolationParameterBox",
      field(&B::mode, "mode", "",
            "mode: ", "\"planarregression\", \"threshold\", \"classification\" or \"constant\"")
          .option("--mode", "planarregression, threshold, classification, constant"),
      field(&B::extrapolation_class, "extrapolation_class", "",
            "extrapolation_class: ", "class (0 to 255) of a grown point")
          .option("--class", "class given to grown points (0 to 255)"),
      field(&B::source, "source", "", "source: ", "classes of the seeds")
          .option("--source", "classes of the seeds (class numbers, e.g. 2)"),
      field(&B::target, "target", "", "target: ", "classes that may change")
          .option("--target", "classes that may change (class numbers)"),
      field(&B::radius, "radius", "m", "radius: ", "search radius of every candidate in metres")
          .option("--radius", "search radius of every candidate, in metres"),
      field(&B::maximum_iteration, "maximum_iteration", "",
            "maximum_iteration: ", "largest number of rounds, 0 to 1000000")
          .option("--maximum-iteration", "largest number of rounds"),
      // --dimension takes 2, 3, 2D or 3D: bound by hand.
      field(&B::dimension, "dimension", "",
            "dimension: ", "\"2D\": seeds in x, y; \"3D\": x, y, z"),
      field(&B::range, "range", "m", "range: ",
            "planarregression: signed distances from the plane in metres that let a point grow")
          .option("--range", "planarregression: signed distances from the plane, in metres, "
                             "that grow (negative: write --range=-0.2:0.2)"),
      field(&B::quantile, "quantile", "%",
            "quantile: ", "planarregression: percentage (0 to 100) of the lowest seeds left out")
          .option("--quantile",
                  "planarregression: percentage (0 to 100) of the lowest seeds left out"),
      field(&B::threshold, "threshold", "m",
            "threshold: ", "threshold: largest height difference from the nearest seed in metres")
          .option("--threshold", "threshold: largest height difference, in metres"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Extrapolates "Classification" fragment by fragment with extrapolationOfMultiArray; afterwards
// the field's value range is computed again. Messages after "Extrapolation: ": "ERROR: no
// f_vertices" or "ERROR: no f_classification" end the run, "ERROR: no m_vertices", "ERROR: no
// m_classification" and "ERROR: no fragment bbox" skip a fragment, "ERROR: unknown mode <mode>"
// ends it before anything changes. Returns box.message. progress, when given, hears the share of
// fragments done.
std::string extrapolation(const Basalt::StrongPtr<Tressel::Grid>& grid,
                          ExtrapolationParameterBox& box,
                          const Basalt::StrongPtr<Basalt::LoaderProgress>& progress);

// The rounds over one fragment: per round a tree (2-D or 3-D by box.dimension, capacity 64, over
// bbox) of the seeds (class in source, or grown in an earlier round), and every candidate (class
// in target, not a seed) decides by box.mode against the classes as they stood at the round's
// start, so the result does not depend on threads or order. Stops when a round changes nothing
// or after maximum_iteration rounds. False for an unknown mode or dimension (nothing changes).
bool extrapolationOfMultiArray(
    const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
    const Basalt::StrongPtr<Vantor::BoundingBox>& bbox, ExtrapolationParameterBox& box,
    Tressel::MultiArray<1, unsigned char>& classes);

// Settings of the ground filter, which finds the ground points of an unclassified cloud, and its
// result text. "smrf" is the simple morphological filter (Pingel, Clarke and McBride 2013): the
// lowest point of every cell makes a minimum surface with its holes filled; cells far below their
// neighbours are dropped as low noise; progressive openings with growing windows mark the cells
// that stand out of the terrain by more than the slope allows (buildings, trees); the surface of
// the remaining cells, filled again, is the provisional terrain, and a point is ground when it
// lies within threshold + scalar * (local slope) of it. The defaults suit airborne data of 1 to 50
// points per square metre in metres, without tuning.
struct GroundFilterParameterBox {
  // The method: "smrf" (the only one so far).
  std::string method = "smrf";
  // Edge of the cells of the minimum surface (units of the positions, above 0). 1 m holds a
  // few points of airborne data; data with fewer points than cells of this size gets cells of
  // about one point each (the square root of the extent's area per point) instead.
  double cell_size = 1.0;
  // Largest terrain slope, rise over run (above 0): a cell that drops by more than slope times
  // the window radius under an opening is an object. 0.15 is about 8.5 degrees.
  double slope = 0.15;
  // Radius of the largest opening window (units of the positions, at least one cell): about half
  // the width of the largest building. 18 m.
  double window = 18.0;
  // Height of a ground point above or below the provisional terrain on flat ground (units of the
  // positions, 0 or more). 0.5 m.
  double threshold = 0.5;
  // How much the threshold grows with the terrain slope at the point (0 or more): threshold +
  // scalar * slope. 1.25 keeps steep slopes, where the filled surface is least exact, ground.
  double scalar = 1.25;
  // Classes that take no part (noise: 7 low point, 18 high noise); their points keep their class.
  Vantor::MultiRange<double> ignore{"7,18"};
  // false: only points of classes 0, 1 and 2 change (to 2 ground or 1 unassigned), others keep
  // their class; true: every point not ignored becomes 2 or 1.
  bool reset = false;
  // Result text of groundFilter: the error that stopped the run, or empty.
  std::string message;

  // One line per field but the message, in order: "method: ", "cell_size: ", "slope: ",
  // "window: ", "threshold: ", "scalar: ", "ignore: ", "reset: " and the value.
  void print() const;
  static constexpr auto fields();
};

constexpr auto GroundFilterParameterBox::fields() {
  using B = GroundFilterParameterBox;
  return describeBox(
      "GroundFilterParameterBox",
      field(&B::method, "method", "", "method: ", "\"smrf\": the simple morphological filter")
          .option("--method", "the filter: smrf (simple morphological)"),
      field(&B::cell_size, "cell_size", "m",
            "cell_size: ", "edge of the cells of the surface in metres")
          .option("--cell", "edge of the cells of the surface, in metres"),
      field(&B::slope, "slope", "rise over run", "slope: ", "largest terrain slope, rise over run")
          .option("--slope", "largest terrain slope, rise over run (0.15: 8.5 deg)"),
      field(&B::window, "window", "m", "window: ", "radius of the largest opening in metres")
          .option("--window",
                  "radius of the largest opening, in metres (half the largest building)"),
      field(&B::threshold, "threshold", "m",
            "threshold: ", "height from the terrain still ground, in metres")
          .option("--threshold",
                  "height from the terrain that is still ground on flat land, in metres"),
      field(&B::scalar, "scalar", "", "scalar: ", "growth of the threshold with the local slope")
          .option("--scalar", "growth of the threshold with the slope at the point"),
      field(&B::ignore, "ignore", "", "ignore: ", "classes that take no part (noise)")
          .option("--ignore", "classes that take no part and keep their class"),
      field(&B::reset, "reset", "", "reset: ", "every point not ignored becomes 2 or 1")
          .option("--reset", "every point not ignored becomes 2 or 1, whatever its class was"),
      field(&B::message, "message", "", "", "the error of the last run"));
}

// Classifies the ground of the whole cloud at once ("Classification" is created, all 0, when the
// cloud has none) by box.method; fragments are only the storage, so the result does not depend
// on how the cloud is cut into them. The raster steps and the points' test run on all processors
// but one, each row, column or point alone, so neither does it depend on their number. Returns the
// number of points found as ground. Errors (no positions, no point with finite coordinates outside
// the ignored classes, a grid of more than 2^28 cells, an unknown method) leave the classes as they
// were and are written to box.message.
std::size_t groundFilter(const Basalt::StrongPtr<Tressel::Grid>& grid,
                         GroundFilterParameterBox& box);

// Both terrain measures over every fragment of a cloud (Tressel::RelativeHeightBox and
// Tressel::RelativeBelowsBox with this half width): "RelativeHeight" (float) and
// "RelativeBelows" (unsigned 8-bit), created or rewritten. With classes, only points of those
// classes take part in the height, and class 4 gets no below value. Fragments without positions
// or without a finite point are left out. Returns the error that stopped the run (no positions,
// no "Classification" for classes, a fragment without a class for every point, a result field
// of another type), empty on success.
std::string relativeHeightAndBelows(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                    double squareHalfWidth,
                                    const Vantor::MultiRange<double>* classes = nullptr);

} // namespace Quorvel

namespace Tressel {

// The square neighbourhood of both terrain measures: every point whose x and y lie within
// squareHalfWidth of the point's own (a closed square, the point itself included). The half width
// is rounded to single precision before use, as stored half widths always were; so 0.1 reaches
// a point 0.100000001 away. Each compute indexes the points of the fragment that lie within bbox
// (others are refused with the trees' out-of-bounds message, are in no square, but still get
// their own) and releases the index when it returns. Results are written by point index, so they
// do not depend on the thread count.

// Height of every point above the lowest point of its square.
struct RelativeHeightBox {
  // Half the side of the square (units of the positions).
  double squareHalfWidth = 1.0;
  // Threads of the per-point loop; 0 or less: all but one. The result never depends on it.
  int threads = 0;

  // result[i] = z of point i minus the lowest z of its square (0 for a point that is not in the
  // tree: outside bbox or not finite). result must hold one value per position.
  bool compute(const MultiArray<1, float>& result,
               const MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
               const Basalt::StrongPtr<Vantor::BoundingBox>& bbox) const;
  // The same among the points whose class lies in classes (tolerance 1e-9) only: the others
  // neither enter the tree nor get a result (theirs is left as it was).
  bool compute(const MultiArray<1, float>& result,
               const MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
               const MultiArray<1, const unsigned char>& pointClasses,
               const Vantor::MultiRange<double>& classes,
               const Basalt::StrongPtr<Vantor::BoundingBox>& bbox) const;
};

// Share of the points of every point's square that lie strictly below it, as a byte.
struct RelativeBelowsBox {
  // Half the side of the square (units of the positions).
  double squareHalfWidth = 1.0;
  // Threads of the per-point loop; 0 or less: all but one. The result never depends on it.
  int threads = 0;

  // result[i] = int(255 * (points of the square strictly lower than point i) / (points of the
  // square)); 255 for a point that is not in the tree. A point never counts itself, so the
  // highest of a square stays below 255 and a lonely point gets 0.
  bool compute(const MultiArray<1, unsigned char>& result,
               const MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
               const Basalt::StrongPtr<Vantor::BoundingBox>& bbox) const;
  // The same, but points of class 4 (medium vegetation, fixed on purpose) get no result: theirs is
  // left as it was. They still count as neighbours of the others.
  bool compute(const MultiArray<1, unsigned char>& result,
               const MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
               const MultiArray<1, const unsigned char>& pointClasses,
               const Basalt::StrongPtr<Vantor::BoundingBox>& bbox) const;
};

} // namespace Tressel
