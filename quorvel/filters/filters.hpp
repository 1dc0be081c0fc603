// Quorvel: the everyday filters of a cloud: cropping to a box or polygons, statistical and
// radius outliers, thinning (by voxel, at random, every N-th point) and reprojection of the
// positions through a transform the host supplies. Each takes its parameter box; the filters
// that keep some points return a new cloud with all the fields of the kept ones, the others
// write into the grid they are given.
#pragma once

#include "basalt/StrongPtr.hpp"
#include "tressel/Grid.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
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
};

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
};

// Whether each point of the cloud (all fragments, in layout order) is an outlier by the box's
// rule; one tree over every point, built once and read by all threads. Empty with a message when
// the cloud has no positions or the method is unknown.
std::vector<std::uint8_t> findOutliers(const Basalt::StrongPtr<Tressel::Grid>& grid,
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
};

// A new cloud of the points kept, with all their fields, in input order; empty with a message
// (after "Thin: ") on missing positions or an unknown mode.
Basalt::StrongPtr<Tressel::Grid> thin(const Basalt::StrongPtr<Tressel::Grid>& grid,
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
};

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
