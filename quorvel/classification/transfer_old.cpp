// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the earlier classification transfer. Its inputs are looked up, in one-tree mode a
// single tree over the whole source is filled, and then one parallel pass over the target
// fragments answers each of them from that tree or from a tree per source fragment.
#include "quorvel/classification/detail/transfer.hpp"

#include <chrono>

namespace Quorvel {

using Tressel::arrayCast;
using namespace detail;

namespace {

// Looks the inputs up in the order their absence is reported; false after the first report. The
// target class field is always "Classification", whatever the box names.
bool lookUpInputs(const StrongPtr<Grid>& source, const StrongPtr<Grid>& target, const Box& box,
                  Messages& log, TransferInputs& in) {
  if (!source) {
    log.report("ERROR: no sourcegrid found");
    return false;
  }
  in.sourcePositions = source->CartesianPositions();
  if (!in.sourcePositions) {
    log.report("ERROR: no source vertices");
    return false;
  }
  in.sourceClasses = findField(source, box.fieldname, log, "ERROR: no source classification");
  if (!in.sourceClasses)
    return false;
  in.targetPositions = findPositions(target, log, "ERROR: no target f_vertices");
  return in.targetPositions && lookUpTargetClasses(target, "Classification", box, log, in);
}

// Fills the single tree of one-tree mode, fragment by fragment, keeping tree index k, entry k of
// sourceClasses and (with positions) of sourceHeights in step.
template <class Tree>
bool fillOneTree(Tree& tree, Box& box, const TransferInputs& in, Messages& log) {
  FragmentProgress progress(in.sourcePositions->nFragments(),
                            "filling tree in mode onetree: ", "\r");
  const ClassSet source(box.source);
  return in.sourcePositions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        progress.step();
        const ClassedPoints points =
            readClassedPoints({id, creator}, *in.sourceClasses, log, "ERROR: no m_vertices",
                              "ERROR: no m_classification");
        if (!points.xyz)
          return false;
        const auto& xyz = *points.xyz;
        const auto& cls = *points.cls;
        for (std::size_t i = 0; i < xyz.size(); ++i) {
          if (!source(cls[i]))
            continue;
          tree.insert(xyz[i], static_cast<unsigned>(box.sourceClasses.size()));
          box.sourceClasses.push_back(cls[i]);
          if (box.positions)
            box.sourceHeights.push_back(static_cast<float>(xyz[i].z));
        }
        return true;
      });
}

// One-tree mode: makes the single tree over the whole source box in `tree` and fills it. False
// after a report when a source fragment cannot be read or no source point entered.
template <class Tree>
bool buildOneTree(StrongPtr<Tree>& tree, Box& box, const TransferInputs& in, Messages& log) {
  tree =
      std::make_shared<Tree>(Tressel::getBoundingBox(*in.sourcePositions), TransferBucketCapacity);
  box.sourceClasses.clear();
  box.sourceHeights.clear();
  if (!fillOneTree(*tree, box, in, log))
    return false;
  if (tree->size() == 0) {
    log.report("ERROR: empty tree");
    return false;
  }
  return true;
}

// Calls f with the single tree of the box's dimension.
template <class F>
void withOneTree(const Box& box, F&& f) {
  if (box.dimension == 2)
    f(box.oneQuadTree);
  else
    f(box.oneOcTree);
}

// Source pass of per-fragment mode, for one target fragment: a tree per source fragment, the
// nearest class (and position) copied onto the target points. A source fragment that cannot be
// read is reported and passed over.
void transferFromEachSourceFragment(const Box& box, const TransferInputs& in,
                                    const FragmentID& targetID, MemArray<1, point>& targetXYZ,
                                    MemArray<1, unsigned char>& targetCls, Messages& log,
                                    int threads) {
  in.sourcePositions->iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (!creator) {
          log.report("ERROR: no cab_source_vertices");
          return true;
        }
        auto xyz = arrayCast<1, point>(creator->getData());
        if (!xyz) {
          log.report("ERROR: no m_sourcevertices");
          return true;
        }
        if (!in.sourceClasses->getCreator(*id)) {
          Basalt::Console() << "INFO: no cab_source_classification for target fragment: "
                            << targetID.Name();
          return true;
        }
        auto cls = fragmentArray<unsigned char>(*in.sourceClasses, *id);
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
          classificationTransfer(tree, box, sourceXYZ, sourceCls, targetXYZ.view(),
                                 targetCls.view(), threads);
        });
        return true;
      });
}

// Target pass, one target fragment: its points and classes (reset first where asked, or where
// the field is new), answered from the single tree point by point or from each source fragment.
void transferOntoTargetFragment(const FragmentSlot& slot, Box& box, const TransferInputs& in,
                                Messages& log, int threads) {
  const auto xyzCreator = slot.creator;
  if (!xyzCreator)
    return log.report("ERROR: no cab_target of vertices found");
  auto xyz = arrayCast<1, point>(xyzCreator->getData());
  if (!xyz)
    return log.report("ERROR: no m_targetvertices");
  if (in.created || box.unclassify)
    zeroClasses(in.targetClasses, slot.id, xyz->size());
  auto clsCreator = in.targetClasses->getCreator(slot.id);
  auto cls = arrayCast<1, unsigned char>(clsCreator ? clsCreator->getData() : nullptr);
  if (!cls || cls->size() != xyz->size())
    return log.report("ERROR: no m_targetclassification");
  if (!fragmentBBox(slot))
    return log.report("ERROR: no fragment_bbox of targetvertices");

  if (box.onetree) {
    withOneTree(box, [&](const auto& tree) {
      forEachPoint(xyz->size(), threads, SearchPointGrain, [&](std::size_t i) {
        classificationTransferOneTree(tree, box, (*xyz)[i], (*cls)[i]);
      });
    });
  } else {
    transferFromEachSourceFragment(box, in, *slot.id, *xyz, *cls, log, threads);
  }
  underCriticalSection([&] {
    clsCreator->touch();
    if (box.positions)
      xyzCreator->touch();
  });
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  const auto elapsed = std::chrono::steady_clock::now() - start;
  return static_cast<double>(
             std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count()) *
         1e-9;
}

} // namespace

std::string classificationTransferOLD(const StrongPtr<Grid>& source, const StrongPtr<Grid>& target,
                                      ClassificationTransferParameterBox& box) {
  const auto start = std::chrono::steady_clock::now();
  Messages log(TransferTag, &box.message);
  TransferInputs in;
  if (!lookUpInputs(source, target, box, log, in))
    return box.message;

  if (box.onetree) {
    const bool built = box.dimension == 2 ? buildOneTree(box.oneQuadTree, box, in, log)
                                          : buildOneTree(box.oneOcTree, box, in, log);
    if (!built)
      return box.message;
  }

  const auto targets = fragmentsOf(*in.targetPositions);
  FragmentProgress progress(targets.size());
  forEachFragment(targets.size(), maximumThreadsMinusOne(), log, [&](std::size_t k, int inner) {
    progress.step();
    transferOntoTargetFragment(targets[k], box, in, log, inner);
  });

  Basalt::Console() << "\nClassificationTransfer: time needed: " << secondsSince(start);
  return box.message;
}

} // namespace Quorvel
