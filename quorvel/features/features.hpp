// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: shape factors and cloud reduction. Shape factors describe every point's neighbourhood
// by the eigenvalues of its second moments (planarity, linearity, sphericity and the normal), at
// the scale that makes it most planar; reduction weights turn planarity and normals into how much
// a point matters when the cloud is thinned; reduced clouds keep the points that matter most.
#pragma once

#include "basalt/loader_progress.hpp"
#include "basalt/strong_ptr.hpp"
#include "quorvel/core/fields.hpp"
#include "tressel/grid.hpp"

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Quorvel {

// Settings of a shape-factor run and its result text.
struct ShapeFactorComputationParameterBox {
  // Number of scales; scale k (1 to maxstep) takes the neighbours whose squared distance is at
  // most k * step, and the query reaches maxstep * step. 4 scales of 0.25: neighbourhoods of
  // about 0.5 m to 1 m, which an airborne cloud of 5 to 30 points per square metre fills well.
  std::uint32_t maxstep = 4;
  // Scale increment (units of the positions; compared with squared distances).
  double step = 0.25;
  // 2: neighbours by x and y only; anything else: by x, y and z.
  int dimension = 3;
  // Return filters (see shapeFactorComputation); all off: every return takes part.
  bool use_only_firstreturns = false;
  bool use_only_singlereturns = false;
  bool use_only_lastreturns = false;
  // Points whose "Amplitude" (else "Intensity") is below this take no part; 0 or less: off.
  double intensity_threshold = 0.0;
  // Bounding boxes and the filter steps on standard output.
  bool verbose = false;
  // Chart of "Positions" and of every field read and written.
  std::string chartname = "StandardCartesianChart3D";
  // Also write "NormalVector", "Linearity", "Sphericity".
  bool normalvector = false;
  bool linearity = false;
  bool sphericity = false;
  // Messages of the run, returned by shapeFactorComputation.
  std::string message;

  // One line per field but the message, in order: "maxstep: ", "step: ", "dimension: ",
  // "use first returns: ", "use single returns: ", "use last returns: ", "intensity threshold: ",
  // "verbose: ", "chartname: ", "normalvector: ", "linearity: ", "sphericity: " and the value.
  void print() const;
  static constexpr auto fields();
};

constexpr auto ShapeFactorComputationParameterBox::fields() {
  using B = ShapeFactorComputationParameterBox;
  return describeBox(
      "ShapeFactorComputationParameterBox",
      field(&B::maxstep, "maxstep", "", "maxstep: ",
            "number of scales, 0 to 1000; scale k takes squared distances up to k * step")
          .option("--maxstep", "number of scales (0 to 1000); the widest reaches sqrt(N*S) metres"),
      field(&B::step, "step", "m²", "step: ",
            "scale increment in square metres (compared with squared distances), positive")
          .option("--step", "scale increment in square metres (the cloud's units squared): scale "
                            "k takes the neighbours within sqrt(k*S) metres"),
      field(&B::dimension, "dimension", "", "dimension: ", "3: neighbours in x, y, z; 2: in x, y"),
      field(&B::use_only_firstreturns, "use_only_firstreturns", "",
            "use first returns: ", "only first returns take part")
          .option("--first-returns", "only first returns take part"),
      field(&B::use_only_singlereturns, "use_only_singlereturns", "",
            "use single returns: ", "only single returns take part")
          .option("--single-returns", "only single returns take part"),
      field(&B::use_only_lastreturns, "use_only_lastreturns", "",
            "use last returns: ", "only last returns take part")
          .option("--last-returns", "only last returns take part"),
      field(&B::intensity_threshold, "intensity_threshold", "intensity units",
            "intensity threshold: ",
            "points of lower \"Amplitude\" (else \"Intensity\") take no part, 0 to 65535; 0: off")
          .option("--intensity-threshold",
                  "points of lower \"Amplitude\" (else \"Intensity\") take no part, in the "
                  "file's intensity units (0 to 65535; 0: all take part)"),
      field(&B::verbose, "verbose", "", "verbose: ",
            "bounding boxes and filter steps among the library's lines (see set_verbose)"),
      field(&B::chartname, "chartname", "",
            "chartname: ", "chart of the positions and of every field")
          .option("--chart", "chart of the positions and fields"),
      field(&B::normalvector, "normalvector", "",
            "normalvector: ", "also write \"NormalVector\" (unit, z >= 0)")
          .option("--normals", "also write \"NormalVector\" (unit vectors, pointing up)"),
      field(&B::linearity, "linearity", "", "linearity: ", "also write \"Linearity\"")
          .option("--linearity", "also write \"Linearity\" (0 to 1)"),
      field(&B::sphericity, "sphericity", "", "sphericity: ", "also write \"Sphericity\"")
          .option("--sphericity", "also write \"Sphericity\" (0 to 1)"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Gives every selected point of every fragment "Planarity" (float) and, on request, "Linearity",
// "Sphericity" (float) and "NormalVector" (unit, z >= 0). One radius query per point (radius
// maxstep * step, 2-D or 3-D tree of the selected points over the fragment's box enlarged 1.1
// times) serves every scale; scale k moments d d^T about the point over the first n_k neighbours
// in distance order beyond the near-duplicates (squared distance below 0.0001), n_k counting
// every neighbour with squared distance <= k * step; the most planar scale wins, the smallest on
// ties. Return filter: with "LastReturn", last returns (value 1) and/or returns of more than one
// (value above 1); else with "ReturnNumber" and "NumberOfReturns", the union of last, first and
// single returns asked for. Points filtered out are no one's neighbours and keep 0 (no normal
// written). Messages are printed after "ShapeFactorComputation: " and returned; a missing chart,
// representation or "Positions" ends the run, a missing box or filter array skips its fragment.
// progress is accepted and not used.
std::string shapeFactorComputation(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                   ShapeFactorComputationParameterBox& box,
                                   const Basalt::StrongPtr<Basalt::LoaderProgress>& progress);

// Settings of a reduction-weight run, its per-fragment statistics and its result text.
struct PointCloudReductionParameterBox {
  // Messages of the run.
  std::string message;
  // Start radius of the neighbour search; it doubles until K + 1 entries are found or it reaches
  // 5.0. 0.5 m holds about 8 neighbours in an airborne cloud of 10 points per square metre.
  double radius = 0.5;
  // K: the number of nearest neighbours that enter a weight (1 or more).
  int neighbours = 8;
  // One entry per fragment processed, by this call and earlier calls with the same box: the
  // fragment's largest and median weight. They are never emptied, so a reused box lets earlier
  // fragments enter the maximum and the median.
  std::vector<float> fragmentMaxWeights;
  std::vector<float> fragmentMedianWeights;

  // "radius: " and "neighbours: " lines.
  void print() const;
  static constexpr auto fields();
};

constexpr auto PointCloudReductionParameterBox::fields() {
  using B = PointCloudReductionParameterBox;
  return describeBox(
      "PointCloudReductionParameterBox",
      field(&B::message, "message", "", "", "messages of the last run"),
      field(&B::radius, "radius", "m",
            "radius: ", "start radius of the neighbour search in metres, positive; doubles up to 5")
          .option("--radius", "start radius of the neighbour search in metres (it doubles, up to "
                              "5 m, until K neighbours are found)"),
      field(&B::neighbours, "neighbours", "points",
            "neighbours: ", "nearest neighbours in a weight (points), 1 to 1000000")
          .option("--neighbours", "nearest neighbours in a weight, in points (1 or more)"),
      field(&B::fragmentMaxWeights, "fragmentMaxWeights", "", "",
            "largest weight of every fragment processed with this box"),
      field(&B::fragmentMedianWeights, "fragmentMedianWeights", "", "",
            "median weight of every fragment processed with this box"));
}

// Gives every point "Weights" (float): -1 for planarity below 0.001 or no neighbour, otherwise
// (S_d / K) (S_n + S_p) + S_m + S_d + S_t over its first K neighbours in distance order (S_d the
// squared distances, S_t the squared offsets from its tangent plane, S_n the squared changes of
// unit upward normal, S_m the squared offsets along the summed normals, S_p the planarity
// changes); repeated queries of a growing radius add their neighbours again. All weights are then
// divided by the median of the fragments' median weights. Needs "Planarity" and "NormalVector"
// (shapeFactorComputation with normalvector). Messages go to standard output after
// "PointCloudReductionWithWeights: " and to box.message; returns an empty string.
std::string computePointCloudReductionWeights(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                              PointCloudReductionParameterBox& box);

// Settings of a thinning by "Weights".
struct PointCloudSizeReductionParameterBox {
  // Share of each fragment's points kept, those of highest weight first (0 to 1). Used when
  // threshold is not set.
  double keep = 0.25;
  // Keep the points whose normalised weight is at least this instead of a share; NaN: unset.
  double threshold = std::numeric_limits<double>::quiet_NaN();
  // Also keep every point marked negative (no smooth surface around it: edges, isolated points,
  // rough places), which a share or threshold alone would drop first.
  bool keep_unweighted = true;
  // Messages of the run.
  std::string message;

  // "keep: ", "threshold: ", "keep unweighted: " lines.
  void print() const;
  static constexpr auto fields();
};

constexpr auto PointCloudSizeReductionParameterBox::fields() {
  using B = PointCloudSizeReductionParameterBox;
  return describeBox(
      "PointCloudSizeReductionParameterBox",
      field(&B::keep, "keep", "share", "keep: ", "share of each fragment's points kept, 0 to 1")
          .option("--keep", "share of each fragment's points kept (0 to 1)"),
      field(&B::threshold, "threshold", "", "threshold: ",
            "keep the points of normalised weight at least this instead (NaN: unset)")
          .option("--threshold", "keep the points whose weight (about 1 for a typical point) is "
                                 "at least W instead"),
      // --drop-unweighted, the opposite switch, is bound by hand.
      field(&B::keep_unweighted, "keep_unweighted", "", "keep unweighted: ",
            "also keep the points of negative weight (edges, isolated points)"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// The points of grid that the box keeps, in a new grid: every per-point field of the
// "StandardCartesianChart3D" representation with the kept points in their order, one fragment per
// fragment of grid, and grid's attributes (so a LAS origin travels along). Empty, with the reason
// in box.message, when grid has no positions or no "Weights" laid out like them.
Basalt::StrongPtr<Tressel::Grid> reducedPointCloud(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                                   PointCloudSizeReductionParameterBox& box);

} // namespace Quorvel
