// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: classification transfer, classes from a classified point cloud onto another one by
// nearest neighbours, copied or chosen from distance bands.
#pragma once

#include "quorvel/core/fields.hpp"

#include "basalt/strong_ptr.hpp"
#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"
#include "vantor/multi_range.hpp"
#include "vantor/physical_space.hpp"
#include "vantor/tree_base.hpp"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Quorvel {

// Settings, working state and accumulated messages of a classification transfer.
struct ClassificationTransferParameterBox {
  // Search radius around a target point (units of the positions); the square root of the
  // largest key of assignment once the constructor has run.
  double radius = 0.0001;
  // Distance bands: key = squared band radius, value = class of a target point whose nearest
  // source point lies closer than that radius.
  std::map<double, std::int32_t> assignment;
  // True when the text held at least one radius=class pair: bands instead of copying classes.
  bool hasAssignment = false;
  // Upper limit of the growing radius in expand mode.
  double maxradius = 250.0;
  // 3: search in x, y and z (OcTree); 2: in x and y (QuadTree); other values build no tree.
  std::int32_t dimension = 3;
  // Per-point class field (one byte per point), read on the source and written on the target.
  std::string fieldname = "Classification";
  // One tree over all source fragments (honoured by classificationTransferOLD only).
  bool onetree = false;
  // A reference a host may keep with the box; not read by the transfer.
  Basalt::StrongPtr<Basalt::ReferenceBase> reference;
  // Also carry the nearest source point's position (its z in one-tree mode); honoured by
  // classificationTransferOLD only.
  bool positions = false;
  // One-tree mode: when nothing is found, keep doubling the radius up to maxradius.
  bool expand = false;
  // Set every target class of a fragment to 0 before transferring.
  bool unclassify = false;
  // Source classes that enter the tree.
  Vantor::MultiRange<double> source{"0:255"};
  // Target classes that are searched for and rewritten.
  Vantor::MultiRange<double> target{"0:255"};
  // Translation from source to target coordinates (target = source + offset). The per-fragment
  // transfer applies it only when x or y is positive; the one-tree search subtracts it whatever
  // its sign, except in expand mode, which never applies it (see classificationTransferOneTree).
  Vantor::PhysicalSpace::vector offset{0.0, 0.0, 0.0};
  // Name of the source file, for the printout only.
  std::string sourcefilename;
  // Every error text of the run, appended in order; the transfer returns a copy.
  std::string message;
  // Worker threads of the per-fragment loops; 0 or less, or more than the runtime offers,
  // becomes the runtime's maximum minus one.
  std::int32_t threads = -1;
  // Working references kept while a transfer runs.
  Basalt::StrongPtr<const Tressel::MemBase> treeReference, classReference;
  // The single tree of one-tree mode (dimension 2 / dimension 3).
  Basalt::StrongPtr<Vantor::QuadTree<unsigned>> oneQuadTree;
  Basalt::StrongPtr<Vantor::OcTree<unsigned>> oneOcTree;
  // One-tree mode: class (and, with positions, z) of the source point under each tree index.
  std::vector<std::int32_t> sourceClasses;
  std::vector<float> sourceHeights;

  // Builds the box from a distance/class text: tokens separated by ',' or ';' (empty tokens are
  // dropped); "r=c" adds the band (r * r -> c) unless that key exists and marks hasAssignment;
  // a bare "r" discards the bands so far, adds (r * r -> -1) and ends the reading; other tokens
  // are ignored. An empty text gives the single band (1e-06 -> -1). radius becomes the square
  // root of the largest key, or stays 0.0001 when the text gave no band.
  explicit ClassificationTransferParameterBox(const std::string& text = "");

  // One console line per field, in order: radius, "\nassignment:", the bands as "\t" radius
  // " --> " class, then has assignment, maxradius, dimension, fieldname, onetree, positions,
  // expand, unclassify, source, target, sourcefilename, threads.
  void print() const;
  static constexpr auto fields();
  // The bands as print() writes them: the label, then "\t" radius " --> " class per band.
  static void printBands(std::string_view label, const std::map<double, std::int32_t>& bands);
};

// The working state (references, trees, source classes and heights) is not described. The
// command line binds by hand --bands (the text the box is built from), --dimension (2, 3, 2D or
// 3D), --offset (X,Y,Z) and --threads (shared with the common option).
constexpr auto ClassificationTransferParameterBox::fields() {
  using B = ClassificationTransferParameterBox;
  return describeBox(
      "ClassificationTransferParameterBox",
      field(&B::radius, "radius", "m", "radius: ", "search radius in metres, positive"),
      field(&B::assignment, "assignment", "m²",
            "\nassignment:", "distance bands: {squared band radius in square metres: class}")
          .printedBy(&B::printBands),
      field(&B::hasAssignment, "hasAssignment", "",
            "has assignment: ", "bands instead of copying classes"),
      field(&B::maxradius, "maxradius", "m",
            "maxradius: ", "largest radius of expand, in metres, positive")
          .option("--maxradius", "largest radius of --expand, in metres"),
      field(&B::dimension, "dimension", "", "dimension: ", "3: search in x, y, z; 2: in x, y"),
      field(&B::fieldname, "fieldname", "", "fieldname: ", "per-point class field (uint8)")
          .option("--field", "per-point class field"),
      field(&B::onetree, "onetree", "",
            "onetree: ", "one tree over the whole source (classificationTransferOLD only)")
          .option("--onetree", "one tree over the whole source (with --old)"),
      field(&B::positions, "positions", "", "positions: ",
            "also carry the nearest source position (classificationTransferOLD only)")
          .option("--positions",
                  "also write the nearest source point's position (\"SourcePositions\")"),
      field(&B::expand, "expand", "",
            "expand: ", "one-tree mode: double the radius up to maxradius")
          .option("--expand", "grow the radius up to --maxradius (with --onetree)"),
      field(&B::unclassify, "unclassify", "", "unclassify: ", "target classes set to 0 first")
          .option("--unclassify", "set target classes to 0 first"),
      field(&B::source, "source", "", "source: ", "source classes that enter the tree")
          .option("--source-classes",
                  "source classes that are searched (class numbers, e.g. 2 or 2:6,9)"),
      field(&B::target, "target", "", "target: ", "target classes that are rewritten")
          .option("--target-classes", "target classes that are rewritten (class numbers)"),
      field(&B::offset, "offset", "m", "",
            "translation (x, y, z) in metres from source to target coordinates"),
      field(&B::sourcefilename, "sourcefilename", "",
            "sourcefilename: ", "name of the source, printed only"),
      field(&B::message, "message", "", "", "every error text of the runs, in order"),
      field(&B::threads, "threads", "",
            "threads: ", "worker threads; 0 or less, or more than the machine has: all but one"));
}

// Moves classes from source onto target, one source fragment after the other: a tree over the
// source fragment's points whose class passes `source`, then, in parallel over the target
// fragments whose box (widened by radius) meets the source box, every target point whose class
// passes `target` takes the class of its nearest source point within radius, or the band class
// of that distance. Creates the target class field when it is missing. Returns box.message.
std::string classificationTransfer(const Basalt::StrongPtr<Tressel::Grid>& source,
                                   const Basalt::StrongPtr<Tressel::Grid>& target,
                                   ClassificationTransferParameterBox& box);

// The earlier version: one parallel loop over the target fragments, per source fragment trees or
// (onetree) one tree over the whole source, with expand and positions; prints its running time.
std::string classificationTransferOLD(const Basalt::StrongPtr<Tressel::Grid>& source,
                                      const Basalt::StrongPtr<Tressel::Grid>& target,
                                      ClassificationTransferParameterBox& box);

// One source fragment onto one target fragment: fills tree with the source points whose class
// passes `source`, then every target point whose class passes `target` takes the class (and,
// with positions, the position) of its nearest source point within radius. The searches run on
// `threads` threads; the result does not depend on their number.
template <class Tree>
void classificationTransfer(
    const Basalt::StrongPtr<Tree>& tree, const ClassificationTransferParameterBox& box,
    const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>& sourcePositions,
    const Tressel::MultiArray<1, const unsigned char>& sourceClasses,
    const Tressel::MultiArray<1, Vantor::PhysicalSpace::point>& targetPositions,
    const Tressel::MultiArray<1, unsigned char>& targetClasses, int threads);

// One target point against the single tree of one-tree mode. Without expand the query is at
// p - offset with radius; with expand it is at p itself, never shifted, with 2 radius, 4 radius,
// ... up to the first radius that reaches maxradius (kept on purpose: results of expand runs stay
// as they were). A found entry sets cls (its class, or its band class) and, with positions, p.z.
template <class Tree>
void classificationTransferOneTree(const Basalt::StrongPtr<Tree>& tree,
                                   const ClassificationTransferParameterBox& box,
                                   Vantor::PhysicalSpace::point& point, unsigned char& cls);

extern template void classificationTransfer<Vantor::OcTree<unsigned>>(
    const Basalt::StrongPtr<Vantor::OcTree<unsigned>>&, const ClassificationTransferParameterBox&,
    const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>&,
    const Tressel::MultiArray<1, const unsigned char>&,
    const Tressel::MultiArray<1, Vantor::PhysicalSpace::point>&,
    const Tressel::MultiArray<1, unsigned char>&, int);
extern template void classificationTransfer<Vantor::QuadTree<unsigned>>(
    const Basalt::StrongPtr<Vantor::QuadTree<unsigned>>&, const ClassificationTransferParameterBox&,
    const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>&,
    const Tressel::MultiArray<1, const unsigned char>&,
    const Tressel::MultiArray<1, Vantor::PhysicalSpace::point>&,
    const Tressel::MultiArray<1, unsigned char>&, int);
extern template void classificationTransferOneTree<Vantor::OcTree<unsigned>>(
    const Basalt::StrongPtr<Vantor::OcTree<unsigned>>&, const ClassificationTransferParameterBox&,
    Vantor::PhysicalSpace::point&, unsigned char&);
extern template void classificationTransferOneTree<Vantor::QuadTree<unsigned>>(
    const Basalt::StrongPtr<Vantor::QuadTree<unsigned>>&, const ClassificationTransferParameterBox&,
    Vantor::PhysicalSpace::point&, unsigned char&);

} // namespace Quorvel
