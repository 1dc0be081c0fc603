// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the fragment-driven classification transfer. It runs in three steps: the inputs are
// looked up, a target pass resets classes and notes where each target fragment lies, and a source
// pass builds one tree per source fragment and answers the target fragments it can reach.
#include "quorvel/classification/detail/transfer.hpp"

#include "tressel/data_range.hpp"

#include <limits>

namespace Quorvel {

using Tressel::arrayCast;
using namespace detail;

namespace {

// Looks the inputs up in the order their absence is reported; false after the first report.
bool lookUpInputs(const StrongPtr<Grid>& source, const StrongPtr<Grid>& target, const Box& box,
                  Messages& log, TransferInputs& in) {
  in.sourcePositions = findPositions(source, log, "ERROR: no f_vertices source found");
  if (!in.sourcePositions ||
      !findChart(source, log, "ERROR: no chart source StandardCartesianChart3D found"))
    return false;
  in.sourceClasses =
      findField(source, box.fieldname, log, "ERROR: no f_classification source found");
  if (!in.sourceClasses)
    return false;
  in.targetPositions = findPositions(target, log, "ERROR: no f_vertices target found");
  if (!in.targetPositions ||
      !findChart(target, log, "ERROR: no chart target StandardCartesianChart3D found"))
    return false;
  return lookUpTargetClasses(target, box.fieldname, box, log, in);
}

// The target fragments in layout order, each with its box widened by the radius: a source
// fragment only visits the target fragments whose widened box meets its own.
struct Targets {
  std::vector<FragmentSlot> slots;
  std::vector<BoundingBox> reach;
};

// Target pass: resets the classes of every target fragment where asked (or where the field is
// new) and collects the fragments with their reach. Stops at a fragment without a box.
Targets targetPass(const TransferInputs& in, const Box& box, Messages& log) {
  Targets targets;
  in.targetPositions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        const FragmentSlot slot{id, creator};
        if (box.unclassify || in.created) {
          const auto xyz = fragmentArray<point>(*in.targetPositions, slot);
          zeroClasses(in.targetClasses, id, xyz ? xyz->size() : 0);
        }
        auto bbox = fragmentBBox(slot);
        if (!bbox) {
          log.report("ERROR: no fragment_bbox target found");
          return false;
        }
        targets.reach.push_back(widened(*bbox, box.radius));
        targets.slots.push_back(slot);
        return true;
      });
  return targets;
}

// Everything a pass over one source fragment shares between the target fragments.
struct SourcePass {
  const Box& box;
  const MemArray<1, unsigned char>& classes; // the source fragment's classes
  const ClassSet& target;                    // the classes a target point may have to ask
  BoundingBox reach; // the source box widened by the radius: no query point outside finds a point
  Messages& log;
};

// The answer of a query that found no source point within the radius.
constexpr std::uint32_t NoAnswer = std::numeric_limits<std::uint32_t>::max();

// The classes of the asking points [b, e) that found a source point: its class, or the band of
// its distance.
void applyAnswers(const SourcePass& pass, std::size_t b, std::size_t e,
                  const Basalt::ArrayVector<std::uint32_t>& asking,
                  const Basalt::ArrayVector<std::uint32_t>& nearest,
                  const Basalt::ArrayVector<double>& squared, MemArray<1, unsigned char>& cls) {
  constexpr std::size_t Ahead = 16; // answers whose source class is fetched ahead
  for (std::size_t k = b; k < e; ++k) {
    if (nearest[k] == NoAnswer)
      continue;
    unsigned char& c = cls[asking[k]];
    if (pass.box.hasAssignment) {
      bandClass(pass.box.assignment, squared[k], c);
      continue;
    }
    if (k + Ahead < e && nearest[k + Ahead] != NoAnswer)
      __builtin_prefetch(&pass.classes[nearest[k + Ahead]]);
    c = pass.classes[nearest[k]];
  }
}

// Transfers onto one target fragment from the tree of one source fragment, its searches on
// `threads` threads.
template <class Tree>
void transferOnto(const Tree& tree, const SourcePass& pass, const FragmentSlot& positions,
                  Field& targetClasses, int threads) {
  auto creator = targetClasses.getCreator(positions.id);
  if (!creator)
    return pass.log.report("ERROR: no cab_target");
  auto xyz = arrayCast<1, point>(positions.creator ? positions.creator->getData() : nullptr);
  if (!xyz)
    return pass.log.report("ERROR: no m_vertices target found");
  auto cls = arrayCast<1, unsigned char>(creator->getData());
  if (!cls || cls->size() != xyz->size())
    return pass.log.report("ERROR: no m_classification target found");

  const auto& box = pass.box;
  const bool shift = offsetApplies(box.offset);
  const bool planar = box.dimension == 2;
  // The points that ask, then the tree answers them all in its own order.
  const auto at = [&](std::size_t i) { return shift ? (*xyz)[i] - box.offset : (*xyz)[i]; };
  Basalt::ArrayVector<std::uint32_t> asking;
  packInBlocks(
      xyz->size(), threads,
      [&](std::size_t i) {
        return pass.target((*cls)[i]) &&
               pass.reach.inside(at(i),
                                 planar ? BoundingBox::PointPlanar : BoundingBox::PointClosed);
      },
      [&](std::size_t count) { asking.resize(count); },
      [&](std::size_t i, std::size_t k) { asking[k] = static_cast<std::uint32_t>(i); });
  // Answers are stored by query and applied afterwards in query order: the tree answers
  // in its own order, and reading anything per answer would wait on memory every time.
  // Each block of the asking points is answered by the thread that takes it, which first marks
  // its own answers missing; an answer does not depend on the other queries, so the blocks
  // change nothing but the time. A distance is read only where an answer was found.
  Basalt::ArrayVector<std::uint32_t> nearest(asking.size());
  Basalt::ArrayVector<double> squared(box.hasAssignment ? asking.size() : 0);
  inTakenBlocks(asking.size(), threads, SearchBlock, [&](std::size_t b, std::size_t e) {
    std::fill(nearest.begin() + static_cast<std::ptrdiff_t>(b),
              nearest.begin() + static_cast<std::ptrdiff_t>(e), NoAnswer);
    tree.findNearestEach(
        e - b, [&](std::size_t k) { return at(asking[b + k]); }, box.radius,
        [&](std::size_t k, const typename Tree::Neighbour& found) {
          nearest[b + k] = found.index;
          if (box.hasAssignment)
            squared[b + k] = found.squared;
        });
  });
  // Each answer changes its own point's class alone.
  inStaticBlocks(asking.size(), threads, [&](std::size_t b, std::size_t e) {
    applyAnswers(pass, b, e, asking, nearest, squared, *cls);
  });
  underCriticalSection([&] { creator->touch(); });
}

// Source pass over one source fragment: a tree over its points whose class is in `sources`,
// then, in parallel, every target fragment it can reach. False, after the report, when the
// fragment cannot be read; the pass then stops.
bool sourcePass(const FragmentSlot& slot, const TransferInputs& in, Box& box,
                const Targets& targets, const ClassSet& sources, const ClassSet& targetClasses,
                Messages& log) {
  const ClassedPoints points =
      readClassedPoints(slot, *in.sourceClasses, log, "ERROR: no m_vertices source found",
                        "ERROR: no m_classification source found");
  if (!points.xyz)
    return false;
  auto sourceBox = fragmentBBox(slot);
  if (!sourceBox) {
    log.report("ERROR: no fragment_bbox source found");
    return false;
  }
  box.treeReference = points.xyz;
  box.classReference = points.cls;

  withTree(box.dimension, sourceBox, [&](const auto& tree) {
    fillTree(*tree, sources, *points.xyz, *points.cls, points.xyz->size(), box.threads);
    if (tree->size() == 0)
      return;
    tree->prepare(box.threads);
    // The target fragments are tested against the source box moved to target coordinates.
    BoundingBox reachable = *sourceBox;
    if (offsetApplies(box.offset))
      reachable = BoundingBox(sourceBox->min() + box.offset, sourceBox->max() + box.offset);
    const SourcePass pass{box, *points.cls, targetClasses, widened(*sourceBox, box.radius), log};
    forEachFragment(targets.slots.size(), box.threads, log, [&](std::size_t t, int inner) {
      if (targets.reach[t].inside(reachable, BoundingBox::Intersects))
        transferOnto(*tree, pass, targets.slots[t], *in.targetClasses, inner);
    });
  });
  return true;
}

// The field's stored value range follows the new classes.
void updateClassRange(Field& classes, Messages& log) {
  classes.iterate([&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
    if (!Tressel::DataRange<unsigned char>::compute(creator))
      log.report("ERROR: no cab_classification");
    return true;
  });
  std::string rangeText;
  Tressel::getRange<unsigned char>(classes, rangeText);
}

} // namespace

std::string classificationTransfer(const StrongPtr<Grid>& source, const StrongPtr<Grid>& target,
                                   ClassificationTransferParameterBox& box) {
  box.threads = correctedThreadCount(box.threads);
  box.print();
  Messages log(TransferTag, &box.message);
  TransferInputs in;
  if (!lookUpInputs(source, target, box, log, in))
    return box.message;

  const Targets targets = targetPass(in, box, log);
  Basalt::Console() << "bboxes: " << targets.reach.size() << " vs. "
                    << in.targetClasses->nFragments();

  const ClassSet sources(box.source), targetClasses(box.target);
  FragmentProgress progress(in.sourcePositions->nFragments(), "source: ", "      \r");
  in.sourcePositions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        progress.step();
        return sourcePass({id, creator}, in, box, targets, sources, targetClasses, log);
      });
  box.treeReference.reset();
  box.classReference.reset();

  updateClassRange(*in.targetClasses, log);
  return box.message;
}

} // namespace Quorvel
