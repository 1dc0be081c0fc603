// Quorvel: the fragment-driven classification transfer.
#include "quorvel/classification/detail/transfer.hpp"
#include "quorvel/spatial/spatial.hpp"

#include "tressel/DataRange.hpp"

#include <limits>

namespace Quorvel {

using Tressel::arrayCast;
using namespace detail;

namespace {

// Everything a pass over one source fragment shares between the target fragments.
struct SourcePass {
  const ClassificationTransferParameterBox& box;
  const MemArray<1, unsigned char>& classes; // the source fragment's classes
  const ClassSet& target;                    // the classes a target point may have to ask
  BoundingBox reach; // the source box widened by the radius: no query point outside finds a point
  Messages& log;
};

// Transfers onto one target fragment from the tree of one source fragment.
template <class Tree>
void transferOnto(const Tree& tree, const SourcePass& pass, const FragmentSlot& positions,
                  Field& targetClasses) {
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
  std::vector<std::uint32_t> asking;
  asking.reserve(xyz->size());
  for (std::size_t i = 0; i < xyz->size(); ++i)
    if (pass.target((*cls)[i]) &&
        pass.reach.inside(at(i), planar ? BoundingBox::PointPlanar : BoundingBox::PointClosed))
      asking.push_back(static_cast<std::uint32_t>(i));
  // Answers are stored by question and applied afterwards in question order: the tree answers
  // in its own order, and reading anything per answer would wait on memory every time.
  constexpr std::uint32_t None = std::numeric_limits<std::uint32_t>::max();
  std::vector<std::uint32_t> nearest(asking.size(), None);
  std::vector<double> squared(box.hasAssignment ? asking.size() : 0);
  tree.findNearestEach(
      asking.size(), [&](std::size_t k) { return at(asking[k]); }, box.radius,
      [&](std::size_t k, const typename Tree::Neighbour& found) {
        nearest[k] = found.index;
        if (box.hasAssignment)
          squared[k] = found.squared;
      });
  constexpr std::size_t Ahead = 16; // answers whose source class is fetched ahead
  for (std::size_t k = 0; k < asking.size(); ++k) {
    if (nearest[k] == None)
      continue;
    unsigned char& c = (*cls)[asking[k]];
    if (box.hasAssignment) {
      bandClass(box.assignment, squared[k], c);
      continue;
    }
    if (k + Ahead < asking.size() && nearest[k + Ahead] != None)
      __builtin_prefetch(&pass.classes[nearest[k + Ahead]]);
    c = pass.classes[nearest[k]];
  }
  underCriticalSection([&] { creator->touch(); });
}

} // namespace

std::string classificationTransfer(const StrongPtr<Grid>& source, const StrongPtr<Grid>& target,
                                   ClassificationTransferParameterBox& box) {
  box.threads = correctedThreadCount(box.threads);
  box.print();
  Messages log(TransferTag, &box.message);

  auto sourcePositions = findPositions(source, log, "ERROR: no f_vertices source found");
  if (!sourcePositions ||
      !findChart(source, log, "ERROR: no chart source StandardCartesianChart3D found"))
    return box.message;
  auto sourceClasses =
      findField(source, box.fieldname, log, "ERROR: no f_classification source found");
  if (!sourceClasses)
    return box.message;
  auto targetPositions = findPositions(target, log, "ERROR: no f_vertices target found");
  if (!targetPositions ||
      !findChart(target, log, "ERROR: no chart target StandardCartesianChart3D found"))
    return box.message;
  if (box.dimension != 2 && box.dimension != 3) {
    log.report("ERROR: no tree");
    return box.message;
  }
  auto targetClasses = findOptionalField(target, box.fieldname);
  // A class field made here starts at class 0 everywhere, as if unclassified.
  const bool created = !targetClasses;
  if (created)
    targetClasses = outputField<unsigned char>(target, box.fieldname);

  // Target pass: reset classes where asked, and collect every target fragment's box widened by
  // the radius, so that each source fragment only visits the target fragments it can reach.
  std::vector<BoundingBox> reach;
  std::vector<FragmentSlot> targets;
  targetPositions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        const FragmentSlot slot{id, creator};
        if (box.unclassify || created) {
          const auto xyz = fragmentArray<point>(*targetPositions, slot);
          FragmentOutput<unsigned char> zero(targetClasses, id, xyz ? xyz->size() : 0);
          std::fill(zero.data(), zero.data() + zero.size(), 0);
          zero.commit();
        }
        auto bbox = fragmentBBox(slot);
        if (!bbox) {
          log.report("ERROR: no fragment_bbox target found");
          return false;
        }
        const Vantor::PhysicalSpace::vector widen(box.radius, box.radius, box.radius);
        reach.emplace_back(bbox->min() - widen, bbox->max() + widen);
        targets.push_back(slot);
        return true;
      });
  Basalt::Console() << "bboxes: " << reach.size() << " vs. " << targetClasses->nFragments();

  const ClassSet sourceSet(box.source), targetSet(box.target);
  const std::size_t sourceCount = sourcePositions->nFragments();
  std::size_t done = 0;
  sourcePositions->iterate([&](const StrongPtr<FragmentID>& id,
                               const StrongPtr<CreativeArrayBase>& creator) {
    Basalt::Console::write("source: " + std::to_string(++done) + " / " +
                           std::to_string(sourceCount) + "      \r");
    auto xyz = arrayCast<1, point>(creator ? creator->getData() : nullptr);
    if (!xyz) {
      log.report("ERROR: no m_vertices source found");
      return false;
    }
    auto cls = fragmentArray<unsigned char>(*sourceClasses, *id);
    if (!cls || cls->size() != xyz->size()) {
      log.report("ERROR: no m_classification source found");
      return false;
    }
    auto sourceBox = fragmentBBox({id, creator});
    if (!sourceBox) {
      log.report("ERROR: no fragment_bbox source found");
      return false;
    }
    box.treeReference = xyz;
    box.classReference = cls;

    withTree(box.dimension, sourceBox, [&](const auto& tree) {
      fillTree(*tree, sourceSet, *xyz, *cls, xyz->size());
      if (tree->size() == 0)
        return;
      BoundingBox reachable = *sourceBox;
      if (offsetApplies(box.offset))
        reachable = BoundingBox(sourceBox->min() + box.offset, sourceBox->max() + box.offset);
      const Vantor::PhysicalSpace::vector widen(box.radius, box.radius, box.radius);
      const SourcePass pass{box, *cls, targetSet,
                            BoundingBox(sourceBox->min() - widen, sourceBox->max() + widen), log};
      forEachFragment(targets.size(), box.threads, log, [&](std::size_t t) {
        if (reach[t].inside(reachable, BoundingBox::Intersects))
          transferOnto(*tree, pass, targets[t], *targetClasses);
      });
    });
    return true;
  });
  box.treeReference.reset();
  box.classReference.reset();

  // The field's stored value range follows the new classes.
  targetClasses->iterate(
      [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
        if (!Tressel::DataRange<unsigned char>::compute(creator))
          log.report("ERROR: no cab_classification");
        return true;
      });
  std::string rangeText;
  Tressel::getRange<unsigned char>(*targetClasses, rangeText);
  return box.message;
}

} // namespace Quorvel
