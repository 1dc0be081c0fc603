// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the everyday filters of a cloud: cropping to a box or polygons, statistical and
// radius outliers, thinning (by voxel, at random, every N-th point) and reprojection of the
// positions through a transform the host supplies. Each takes its parameter box; the filters
// that keep some points return a new cloud with all the fields of the kept ones, the others
// write into the grid they are given.
#pragma once

#include "basalt/strong_ptr.hpp"
#include "quorvel/core/fields.hpp"
#include "quorvel/core/kept.hpp"
#include "tressel/grid.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel {

// ---- Crop ----------------------------------------------------------------------------------

// A ring of x-y vertices; closing the ring again with its first vertex is optional.
using Ring = std::vector<std::array<double, 2>>;
// A polygon: its outer ring, then its holes.
struct Polygon {
  std::vector<Ring> rings;
};

struct CropParameterBox {
  // The box XMIN,YMIN,XMAX,YMAX, used when there are no polygons; its edges are inside.
  std::array<double, 4> box{0, 0, 0, 0};
  // The area as a union of polygons (holes excluded); points on a boundary are inside.
  std::vector<Polygon> polygons;
  // Keep the points outside the area instead.
  bool inverse = false;
  // An expression (docs/expressions.md) that limits the points tested: the others are kept as
  // they are. Empty: every point is tested.
  std::string where;
  // Messages of the run.
  std::string message;

  // "box: ", "inverse: " and "where: " lines.
  void print() const;
  static constexpr auto fields();
  // The box as print() writes it: "(xmin,ymin,xmax,ymax)" in full precision.
  static void printBox(std::string_view label, const std::array<double, 4>& box);
};

constexpr auto CropParameterBox::fields() {
  using B = CropParameterBox;
  return describeBox(
      "CropParameterBox",
      // --box (a text of four numbers) and --polygon (a file) are bound by hand.
      field(&B::box, "box", "cloud units",
            "box: ", "(xmin, ymin, xmax, ymax), edges inside; used without polygons")
          .printedBy(&B::printBox),
      field(&B::polygons, "polygons", "cloud units", "",
            "polygons, each a list of rings of (x, y) vertices (outer ring first, then holes); "
            "their union is the area, boundaries inside"),
      field(&B::inverse, "inverse", "", "inverse: ", "keep the points outside the area instead")
          .option("--inverse", "keep the points outside the area instead"),
      // --where is an expression, checked as it is read: bound by hand.
      field(&B::where, "where", "",
            "where: ", "an expression limiting the points tested (the others kept)"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Whether each of n x-y points lies in the union of the polygons (boundaries inside), as bytes
// 0/1. Each polygon gets a grid of cells known to be inside, outside or crossed by edges once, so
// that most points need no edge test and the others test the few edges of their cells.
std::vector<std::uint8_t> insidePolygons(const std::vector<Polygon>& polygons, std::size_t n,
                                         const double* x, const double* y);

// A new cloud of the points inside the area (or outside it, inverse), with all their fields, in
// input order; empty with the reason in box.message (after "Crop: ") when grid has no positions
// or the box is not XMIN <= XMAX, YMIN <= YMAX.
Basalt::StrongPtr<Tressel::Grid> crop(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                      CropParameterBox& box);
// The points crop() keeps, before anything is copied; empty with the reason as crop() gives it.
std::optional<KeptPoints> keptByCrop(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                     CropParameterBox& box);

// ---- Outliers -----------------------------------------------------------------------------

struct OutlierParameterBox {
  // "statistical": a point is an outlier when the mean distance to its K nearest other points
  // exceeds mu + multiplier * sigma, mu and sigma the mean and standard deviation (over n) of
  // those means over all points. "radius": when fewer than minPoints other points lie within
  // radius (a point at exactly radius counts).
  std::string method = "statistical";
  int neighbours = 8;      // K of the statistical rule
  double multiplier = 2.0; // M of the statistical rule
  double radius = 1.0;     // R of the radius rule, metres
  int minPoints = 2;       // N of the radius rule
  int classify = 7;        // class given to outliers ("Classification") unless remove
  bool remove = false;     // drop outliers instead of classifying them
  // An expression (docs/expressions.md) that limits the points tested: only they can be
  // outliers, while every point stays a neighbour. Empty: every point is tested.
  std::string where;
  std::int32_t threads = 0; // 0: maximumThreadsMinusOne(); the result never depends on it
  // Results: outliers found, and mu and sigma of the statistical rule.
  std::size_t outliers = 0;
  double mean = 0.0;
  double deviation = 0.0;
  std::string message;

  void print() const;
  static constexpr auto fields();
};

constexpr auto OutlierParameterBox::fields() {
  using B = OutlierParameterBox;
  return describeBox(
      "OutlierParameterBox",
      field(&B::method, "method", "", "method: ", "\"statistical\" or \"radius\"")
          .option("--method", "statistical or radius"),
      field(&B::neighbours, "neighbours", "points", "neighbours: ", "K of the statistical rule")
          .option("--neighbours", "K of the statistical rule, points"),
      field(&B::multiplier, "multiplier", "", "multiplier: ", "M: outlier when d_i > mu + M sigma")
          .option("--multiplier", "M of the statistical rule"),
      field(&B::radius, "radius", "m", "radius: ", "R of the radius rule (inclusive), metres")
          .option("--radius", "R of the radius rule, in the cloud's units"),
      field(&B::minPoints, "minPoints", "points",
            "minPoints: ", "N: outlier with fewer other points within R")
          .option("--min-points", "N of the radius rule, points"),
      field(&B::classify, "classify", "", "classify: ", "class given to outliers")
          .option("--classify", "class given to outliers"),
      field(&B::remove, "remove", "", "remove: ", "drop the outliers instead")
          .option("--remove", "drop the outliers instead"),
      // --where (an expression) and --threads (shared with the common option) are bound by hand.
      field(&B::where, "where", "",
            "where: ", "an expression limiting the points tested (all points stay neighbours)"),
      field(&B::threads, "threads", "", "", "0: all but one; results never depend on it"),
      field(&B::outliers, "outliers", "points", "", "outliers found by the last run"),
      field(&B::mean, "mean", "m", "", "mu of the last statistical run"),
      field(&B::deviation, "deviation", "m", "", "sigma of the last statistical run"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Whether each point of the cloud (all fragments, in layout order) is an outlier by the box's
// rule; one tree over every point, built once and read by all threads. Empty with a message when
// the cloud has no positions or the method is unknown.
std::vector<std::uint8_t> findOutliers(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                       OutlierParameterBox& box);

// The points that are not outliers by the box's rule, before anything is copied (the cloud
// box.remove makes); nullopt on error (box.message).
std::optional<KeptPoints> keptByOutliers(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                         OutlierParameterBox& box);

// Classifies outliers as box.classify (creating "Classification" as uint8 where missing) and
// returns grid, or returns a new cloud without them (box.remove). Empty on error (box.message).
Basalt::StrongPtr<Tressel::Grid> filterOutliers(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                                OutlierParameterBox& box);

// ---- Thinning -----------------------------------------------------------------------------

struct ThinParameterBox {
  // "voxel" (one point per cube of side voxel, cubes at multiples of voxel from the coordinate
  // origin), "random" (each point kept with probability fraction) or "every" (the 1st, (N+1)th,
  // ... point in file order).
  std::string mode = "voxel";
  double voxel = 1.0;
  // Which point a voxel keeps: "first" in file order, "lowest" or "highest" z, "centre": the
  // nearest to the cube's centre; ties go to the first in file order.
  std::string keep = "first";
  double fraction = 0.5;
  // Seed of the random mode: point i (in file order) is kept when the i-th number of a
  // SplitMix64 sequence started at the seed, as a fraction of 2^64, is below fraction; no thread
  // count changes the result.
  std::uint64_t seed = 0;
  std::int64_t every = 2;
  std::string message;

  void print() const;
  static constexpr auto fields();
};

constexpr auto ThinParameterBox::fields() {
  using B = ThinParameterBox;
  return describeBox(
      "ThinParameterBox",
      // The command line has no --mode: the option given (--voxel, --random, --every) sets it.
      field(&B::mode, "mode", "", "mode: ", "\"voxel\", \"random\" or \"every\""),
      field(&B::voxel, "voxel", "cloud units",
            "voxel: ", "side of the cubes, from the coordinate origin")
          .option("--voxel", "one point per cube of this side; cubes at multiples of it from the "
                             "coordinate origin"),
      field(&B::keep, "keep", "", "keep: ", "first, lowest, highest or centre")
          .option("--keep", "the point a cube keeps: first (in file order), lowest, highest, "
                            "centre (nearest the cube's centre); ties go to the first"),
      field(&B::fraction, "fraction", "share",
            "fraction: ", "probability of keeping a point (random)")
          .option("--random", "keep each point with this probability (0 to 1)"),
      field(&B::seed, "seed", "", "seed: ", "seed of the SplitMix64 sequence (random)")
          .option("--seed", "seed of --random: point i in file order is kept when the i-th "
                            "number of the SplitMix64 sequence from the seed, over 2^64, is "
                            "below the fraction"),
      field(&B::every, "every", "points", "every: ", "N: the 1st, (N+1)th, ... point in file order")
          .option("--every", "keep the 1st, (N+1)th, 2N+1th, ... point"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// A new cloud of the points kept, with all their fields, in input order; empty with a message
// (after "Thin: ") on missing positions or an unknown mode.
Basalt::StrongPtr<Tressel::Grid> thin(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                      ThinParameterBox& box);
// The points thin() keeps, before anything is copied; empty with the reason as thin() gives it.
std::optional<KeptPoints> keptByThin(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                     ThinParameterBox& box);

// ---- Reprojection ------------------------------------------------------------------------

// Transforms n points in place (x, y and z arrays); false when a point cannot be transformed.
// One is made per thread, so that transforms need not be thread-safe.
using PointTransform = std::function<bool(std::size_t n, double* x, double* y, double* z)>;
using TransformFactory = std::function<PointTransform()>;

struct ReprojectionParameterBox {
  // The coordinate systems, as texts the host's transform reads (EPSG:n, WKT, PROJ strings);
  // source empty: the cloud's own.
  std::string target;
  std::string source;
  // The input's LAS scale (the step of its coordinates); 0.001 when it had none.
  std::array<double, 3> inputScale{0.001, 0.001, 0.001};
  // Transform every point exactly instead of interpolating checked cells (see reproject()).
  bool exact = false;
  // The largest error of an interpolated coordinate, as a fraction of the output's scale.
  double tolerance = 0.01;
  std::int32_t threads = 0;
  // Results: a LAS scale and offset that keep the precision of the input (see reproject()).
  std::array<double, 3> scale{0.001, 0.001, 0.001};
  std::array<double, 3> offset{0, 0, 0};
  std::string message;

  void print() const;
  static constexpr auto fields();
  // The input's scale as print() writes it: "(sx,sy,sz)".
  static void printScale(std::string_view label, const std::array<double, 3>& scale);
};

constexpr auto ReprojectionParameterBox::fields() {
  using B = ReprojectionParameterBox;
  return describeBox(
      "ReprojectionParameterBox",
      field(&B::target, "target", "",
            "target: ", "the output's system: EPSG:n, WKT or a PROJ string")
          .option("--to", "the output's coordinate system: EPSG:n, WKT or a PROJ string"),
      field(&B::source, "source", "", "source: ", "the input's system; empty: the cloud's own")
          .option("--from", "the input's coordinate system (default: the file's; needed without "
                            "one)"),
      field(&B::inputScale, "inputScale", "", "inputScale: ",
            "the input's LAS scale (set from the cloud's LAS origin where it has one)")
          .printedBy(&B::printScale),
      field(&B::exact, "exact", "",
            "exact: ", "transform every point exactly instead of interpolating checked cells")
          .option("--exact",
                  "transform every point through PROJ instead of interpolating checked cells"),
      field(&B::tolerance, "tolerance", "", "tolerance: ",
            "largest error of an interpolated coordinate, a fraction of the output's scale"),
      // --threads, shared with the common option, is bound by hand.
      field(&B::threads, "threads", "", "", "0: all but one"),
      field(&B::scale, "scale", "", "", "LAS scale chosen by the last run"),
      field(&B::offset, "offset", "", "", "LAS offset chosen by the last run"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Transforms every position of grid in place, in blocks across threads, each thread with its own
// transform from makeTransform. Unless box.exact, the transform is first approximated over the
// cloud's extent by cubic interpolants in cells, each checked at 21 extra points against exact
// transforms and split until they agree within box.tolerance times the output's scale (exact
// transforms for cells that never do, within a budget of one exact transform per eight points);
// the points then take the interpolants, which are the same whatever the thread count. Then chooses
// the output's scale and offset: x and y take the largest power of ten not above a tenth of the
// length in output units of one input step (the finer of x and y) moved through the transform at
// the cloud's centre, z the same from a step in z (so rounding adds at most a twentieth of an input
// step); the offset is the floor of the smallest coordinate (whole units), and a scale too fine for
// the extent in 32-bit integers is coarsened tenfold until it fits. False with a message on a point
// that cannot be transformed.
bool reproject(const Basalt::StrongPtr<Tressel::Grid>& grid, ReprojectionParameterBox& box,
               const TransformFactory& makeTransform);

} // namespace Quorvel
