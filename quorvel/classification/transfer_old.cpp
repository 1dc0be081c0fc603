// Quorvel: the earlier classification transfer, with one tree over the whole source as an
// option, and its per-fragment and per-point steps.
#include "quorvel/classification/detail/transfer.hpp"

#include <chrono>
#include <vector>

namespace Quorvel {

using Tressel::arrayCast;
using namespace detail;

template <class Tree>
void classificationTransfer(const StrongPtr<Tree>& tree,
                            const ClassificationTransferParameterBox& box,
                            const MultiArray<1, const point>& sourcePositions,
                            const MultiArray<1, const unsigned char>& sourceClasses,
                            const MultiArray<1, point>& targetPositions,
                            const MultiArray<1, unsigned char>& targetClasses) {
  if (!tree)
    return;
  const ClassSet source(box.source), target(box.target);
  fillTree(*tree, source, sourcePositions, sourceClasses,
           std::min(sourcePositions.size(), sourceClasses.size()));
  if (!tree->valid() || tree->size() == 0)
    return;

  // The target points that ask, in as many parts as there are threads; the tree answers each
  // part in its own order.
  const std::size_t targetCount = std::min(targetPositions.size(), targetClasses.size());
  std::vector<std::size_t> asking;
  for (std::size_t i = 0; i < targetCount; ++i)
    if (target(targetClasses[i]))
      asking.push_back(i);
  const int parts = maximumThreadsMinusOne();
  const std::size_t part =
      (asking.size() + static_cast<std::size_t>(parts) - 1) / static_cast<std::size_t>(parts);
#pragma omp parallel for schedule(static, 1) num_threads(parts)
  for (int t = 0; t < parts; ++t) {
    const std::size_t b = std::min(asking.size(), static_cast<std::size_t>(t) * part);
    const std::size_t e = std::min(asking.size(), b + part);
    tree->findNearestEach(
        e - b, [&](std::size_t k) { return targetPositions[asking[b + k]]; }, box.radius,
        [&](std::size_t k, const typename Tree::Neighbour& found) {
          const std::size_t i = asking[b + k];
          targetClasses[i] = sourceClasses[found.index];
          if (box.positions)
            targetPositions[i] = found.position;
        });
  }
}

template <class Tree>
void classificationTransferOneTree(const StrongPtr<Tree>& tree,
                                   const ClassificationTransferParameterBox& box, point& p,
                                   unsigned char& cls) {
  if (!tree)
    return;
  unsigned nearest = 0;
  double squared = 0.0;
  bool found = false;
  if (!box.expand) {
    found = tree->findNearest(p - box.offset, box.radius, nearest, squared);
  } else {
    // The first try is at twice the radius; the radius that first reaches maxradius is still
    // tried. A radius that cannot grow (0, or not finite) is tried once.
    double r = box.radius;
    for (;;) {
      const double previous = r;
      r = 2 * r;
      found = tree->findNearest(p, r, nearest, squared);
      if (found || r >= box.maxradius || !(r > previous))
        break;
    }
  }
  if (!found)
    return;
  if (box.hasAssignment)
    bandClass(box.assignment, squared, cls);
  else if (nearest < box.sourceClasses.size())
    cls = static_cast<unsigned char>(box.sourceClasses[nearest]);
  if (box.positions && nearest < box.sourceHeights.size())
    p.z = box.sourceHeights[nearest];
}

#define QUORVEL_TRANSFER_INSTANCES(TREE)                                                           \
  template void classificationTransfer<TREE>(                                                      \
      const StrongPtr<TREE>&, const ClassificationTransferParameterBox&,                           \
      const MultiArray<1, const point>&, const MultiArray<1, const unsigned char>&,                \
      const MultiArray<1, point>&, const MultiArray<1, unsigned char>&);                           \
  template void classificationTransferOneTree<TREE>(                                               \
      const StrongPtr<TREE>&, const ClassificationTransferParameterBox&, point&, unsigned char&);
QUORVEL_TRANSFER_INSTANCES(Vantor::OcTree<unsigned>)
QUORVEL_TRANSFER_INSTANCES(Vantor::QuadTree<unsigned>)
#undef QUORVEL_TRANSFER_INSTANCES

namespace {

// Fills the single tree of one-tree mode, fragment by fragment, keeping tree index k, entry k of
// sourceClasses and (with positions) of sourceHeights in step.
template <class Tree>
bool fillOneTree(Tree& tree, ClassificationTransferParameterBox& box, const Field& positions,
                 const Field& classes, Messages& log) {
  const std::size_t count = positions.nFragments();
  std::size_t done = 0;
  const ClassSet source(box.source);
  return positions.iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        Basalt::Console::write("filling tree in mode onetree: " + std::to_string(++done) + " / " +
                               std::to_string(count) + "\r");
        auto xyz = arrayCast<1, point>(creator ? creator->getData() : nullptr);
        if (!xyz) {
          log.report("ERROR: no m_vertices");
          return false;
        }
        auto cls = fragmentArray<unsigned char>(classes, *id);
        if (!cls || cls->size() != xyz->size()) {
          log.report("ERROR: no m_classification");
          return false;
        }
        for (std::size_t i = 0; i < xyz->size(); ++i) {
          if (!source((*cls)[i]))
            continue;
          tree.insert((*xyz)[i], static_cast<unsigned>(box.sourceClasses.size()));
          box.sourceClasses.push_back((*cls)[i]);
          if (box.positions)
            box.sourceHeights.push_back(static_cast<float>((*xyz)[i].z));
        }
        return true;
      });
}

// Per-fragment mode of one target fragment: a tree per source fragment, nearest class (and
// position) copied onto the target points.
void transferFromEachSourceFragment(ClassificationTransferParameterBox& box,
                                    const Field& sourcePositions, const Field& sourceClasses,
                                    const FragmentID& targetID, MemArray<1, point>& targetXYZ,
                                    MemArray<1, unsigned char>& targetCls, Messages& log) {
  sourcePositions.iterate([&](const StrongPtr<FragmentID>& id,
                              const StrongPtr<CreativeArrayBase>& creator) {
    if (!creator) {
      log.report("ERROR: no cab_source_vertices");
      return true;
    }
    auto xyz = arrayCast<1, point>(creator->getData());
    if (!xyz) {
      log.report("ERROR: no m_sourcevertices");
      return true;
    }
    if (!sourceClasses.getCreator(*id)) {
      Basalt::Console() << "INFO: no cab_source_classification for target fragment: "
                        << targetID.Name();
      return true;
    }
    auto cls = fragmentArray<unsigned char>(sourceClasses, *id);
    if (!cls || cls->size() != xyz->size()) {
      log.report("ERROR: no m_sourceclassification");
      return true;
    }
    auto bbox = fragmentBBox({id, creator});
    if (!bbox) {
      log.report("ERROR: no fragment_bbox of sourcevertices");
      return true;
    }
    withTree(box.dimension, bbox, [&](const auto& tree) {
      const MultiArray<1, const point> sourceXYZ = xyz->view();
      const MultiArray<1, const unsigned char> sourceCls = cls->view();
      classificationTransfer(tree, box, sourceXYZ, sourceCls, targetXYZ.view(), targetCls.view());
    });
    return true;
  });
}

} // namespace

std::string classificationTransferOLD(const StrongPtr<Grid>& source, const StrongPtr<Grid>& target,
                                      ClassificationTransferParameterBox& box) {
  const auto start = std::chrono::steady_clock::now();
  Messages log(TransferTag, &box.message);

  if (!source) {
    log.report("ERROR: no sourcegrid found");
    return box.message;
  }
  auto sourcePositions = source->CartesianPositions();
  if (!sourcePositions) {
    log.report("ERROR: no source vertices");
    return box.message;
  }
  auto sourceClasses = findField(source, box.fieldname, log, "ERROR: no source classification");
  if (!sourceClasses)
    return box.message;
  auto targetPositions = findPositions(target, log, "ERROR: no target f_vertices");
  if (!targetPositions)
    return box.message;
  if (box.dimension != 2 && box.dimension != 3) {
    log.report("ERROR: no tree");
    return box.message;
  }
  auto targetClasses = findOptionalField(target, "Classification");
  const bool created = !targetClasses;
  if (created)
    targetClasses = outputField<unsigned char>(target, "Classification");

  if (box.onetree) {
    auto whole = Tressel::getBoundingBox(*sourcePositions);
    box.sourceClasses.clear();
    box.sourceHeights.clear();
    bool filled = true;
    std::size_t entries = 0;
    if (box.dimension == 2) {
      box.oneQuadTree = std::make_shared<Vantor::QuadTree<unsigned>>(whole, TransferBucketCapacity);
      filled = fillOneTree(*box.oneQuadTree, box, *sourcePositions, *sourceClasses, log);
      entries = box.oneQuadTree->size();
    } else {
      box.oneOcTree = std::make_shared<Vantor::OcTree<unsigned>>(whole, TransferBucketCapacity);
      filled = fillOneTree(*box.oneOcTree, box, *sourcePositions, *sourceClasses, log);
      entries = box.oneOcTree->size();
    }
    if (!filled)
      return box.message;
    if (entries == 0) {
      log.report("ERROR: empty tree");
      return box.message;
    }
  }

  const auto targets = fragmentsOf(*targetPositions);
  const std::size_t count = targets.size();
  forEachFragment(count, maximumThreadsMinusOne(), log, [&](std::size_t k) {
    underCriticalSection([&] {
      Basalt::Console::write("... computing fragment " + std::to_string(k + 1) + " / " +
                             std::to_string(count) + "            \r");
    });
    const FragmentSlot& slot = targets[k];
    const auto xyzCreator = slot.creator;
    if (!xyzCreator)
      return log.report("ERROR: no cab_target of vertices found");
    auto xyz = arrayCast<1, point>(xyzCreator->getData());
    if (!xyz)
      return log.report("ERROR: no m_targetvertices");
    if (created || box.unclassify) {
      FragmentOutput<unsigned char> zero(targetClasses, slot.id, xyz->size());
      std::fill(zero.data(), zero.data() + zero.size(), 0);
      zero.commit();
    }
    auto clsCreator = targetClasses->getCreator(slot.id);
    auto cls = arrayCast<1, unsigned char>(clsCreator ? clsCreator->getData() : nullptr);
    if (!cls || cls->size() != xyz->size())
      return log.report("ERROR: no m_targetclassification");
    if (!fragmentBBox(slot))
      return log.report("ERROR: no fragment_bbox of targetvertices");

    if (box.onetree) {
      for (std::size_t i = 0; i < xyz->size(); ++i) {
        if (box.dimension == 2)
          classificationTransferOneTree(box.oneQuadTree, box, (*xyz)[i], (*cls)[i]);
        else
          classificationTransferOneTree(box.oneOcTree, box, (*xyz)[i], (*cls)[i]);
      }
    } else {
      transferFromEachSourceFragment(box, *sourcePositions, *sourceClasses, *slot.id, *xyz, *cls,
                                     log);
    }
    underCriticalSection([&] {
      clsCreator->touch();
      if (box.positions)
        xyzCreator->touch();
    });
  });

  const double seconds = static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                 std::chrono::steady_clock::now() - start)
                                                 .count()) *
                         1e-9;
  Basalt::Console() << "\nClassificationTransfer: time needed: " << seconds;
  return box.message;
}

} // namespace Quorvel
