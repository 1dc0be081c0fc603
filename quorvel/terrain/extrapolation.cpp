// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: extrapolation of a class into the candidates near its seeds, in rounds. Every round
// builds a tree of the seeds as they stood at its start and lets every candidate decide on a
// snapshot of the classes, so the growth is the same on any number of threads.
#include "quorvel/core/core.hpp"
#include "quorvel/geometry/detail/planes.hpp"
#include "quorvel/spatial/spatial.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/detail/rounds.hpp"
#include "quorvel/terrain/terrain.hpp"

#include "tressel/data_range.hpp"
#include "vantor/trees.hpp"

#include <atomic>
#include <cmath>
#include <optional>

namespace Quorvel {

using Box = ExtrapolationParameterBox;

void ExtrapolationParameterBox::print() const {
  printFields(*this);
}

namespace {

enum class Mode { PlanarRegression, Threshold, Classification, Constant };

std::optional<Mode> modeOf(const std::string& text) {
  if (text == "planarregression")
    return Mode::PlanarRegression;
  if (text == "threshold")
    return Mode::Threshold;
  if (text == "classification")
    return Mode::Classification;
  if (text == "constant")
    return Mode::Constant;
  return std::nullopt;
}

// What one candidate becomes in a round, from the seeds of the round's tree; its own class when
// it does not grow. before holds the classes at the round's start.
template <class Tree>
struct Decision {
  const Tree& tree;
  const MultiArray<1, const point>& positions;
  const std::vector<unsigned char>& before;
  const Box& box;
  Mode mode;

  // Whether the plane through the seeds about p passes within range of p: a question of p's
  // position alone (candidates are no seeds), so copies of p ask it once when their seeds are
  // many.
  bool nearPlane(const point& p, std::vector<unsigned>& seeds, std::vector<point>& scratch,
                 CopyAnswers<3, bool>& copies) const {
    constexpr std::size_t Many = 64;
    const auto key = positionBits(p);
    if (const bool* known = copies.find(key))
      return *known;
    seeds.clear();
    tree.getRange(p, box.radius, seeds);
    if (seeds.size() < 3)
      return false;
    scratch.clear();
    for (const unsigned j : seeds)
      scratch.push_back(positions[j]);
    detail::Plane plane;
    const bool near =
        detail::planarRegressionInPlace(scratch, plane, static_cast<unsigned>(box.quantile)) &&
        box.range.contains(computeDistanceOfPointFromPlane(plane, p), RangeTolerance);
    if (seeds.size() > Many)
      copies.remember(key, near);
    return near;
  }

  unsigned char operator()(std::size_t i, std::vector<unsigned>& seeds, std::vector<point>& scratch,
                           CopyAnswers<3, bool>& copies) const {
    const point& p = positions[i];
    const auto grown = static_cast<unsigned char>(box.extrapolation_class);
    if (mode == Mode::PlanarRegression)
      return nearPlane(p, seeds, scratch, copies) ? grown : before[i];
    unsigned nearest = 0;
    double squared = 0;
    if (!tree.findNearest(p, box.radius, nearest, squared))
      return before[i];
    if (mode == Mode::Classification)
      return before[nearest];
    if (mode == Mode::Threshold && !(std::fabs(p.z - positions[nearest].z) <= box.threshold))
      return before[i];
    return grown;
  }
};

// What a thread of a round's decisions keeps from one block of points to the next.
struct DecisionRoom {
  std::vector<unsigned> seeds;
  std::vector<point> scratch;
  CopyAnswers<3, bool> copies;
};

// The rounds with a tree of type Tree; returns how many ran their point step.
template <class Tree>
int rounds(const MultiArray<1, const point>& positions, const StrongPtr<BoundingBox>& bbox,
           const Box& box, Mode mode, MultiArray<1, unsigned char>& classes) {
  const std::size_t n = positions.size();
  std::vector<unsigned char> before(n), grown(n, 0);
  const auto isSeed = [&](std::size_t i) {
    return grown[i] || box.source.contains(static_cast<double>(before[i]), RangeTolerance);
  };
  const int threads = maximumThreadsMinusOne();
  // A point's decision depends on the classes at the start of the round alone, so the points go
  // in blocks, eight a thread taken one at a time: where the targets and their neighbourhoods
  // are uneven, no thread is left working alone.
  int round = 0;
  for (; round < box.maximum_iteration; ++round) {
    inStaticBlocks(n, threads, [&](std::size_t begin, std::size_t end) {
      for (std::size_t i = begin; i < end; ++i)
        before[i] = classes[i];
    });
    const auto tree = detail::treeOf<Tree>(positions, bbox, isSeed);
    if (tree->size() == 0)
      break;
    const Decision<Tree> decide{*tree, positions, before, box, mode};
    std::atomic<std::size_t> changed{0};
    inTakenBlocksWith(
        n, threads, 1, [] { return DecisionRoom(); },
        [&](DecisionRoom& room, std::size_t begin, std::size_t end) {
          std::size_t mine = 0;
          for (std::size_t i = begin; i < end; ++i) {
            if (isSeed(i) || !box.target.contains(static_cast<double>(before[i]), RangeTolerance))
              continue;
            const unsigned char c = decide(i, room.seeds, room.scratch, room.copies);
            if (c != before[i]) {
              classes[i] = c;
              grown[i] = 1;
              ++mine;
            }
          }
          changed += mine;
        });
    if (changed == 0) {
      ++round;
      break;
    }
  }
  return round;
}

} // namespace

int detail::extrapolateFragment(const MultiArray<1, const point>& positions,
                                const StrongPtr<BoundingBox>& bbox, const Box& box,
                                MultiArray<1, unsigned char>& classes) {
  const auto mode = modeOf(box.mode);
  const std::size_t n = std::min(positions.size(), classes.size());
  const MultiArray<1, const point> xyz =
      positions.subarray(Tressel::MultiIndex<1>(0), Tressel::MultiIndex<1>(n));
  if (!mode)
    return -1;
  if (box.dimension == "2D")
    return rounds<Vantor::QuadTree<unsigned>>(xyz, bbox, box, *mode, classes);
  if (box.dimension == "3D")
    return rounds<Vantor::OcTree<unsigned>>(xyz, bbox, box, *mode, classes);
  return -1;
}

bool extrapolationOfMultiArray(const MultiArray<1, const point>& positions,
                               const StrongPtr<BoundingBox>& bbox, Box& box,
                               MultiArray<1, unsigned char>& classes) {
  return detail::extrapolateFragment(positions, bbox, box, classes) >= 0;
}

std::string extrapolation(const StrongPtr<Grid>& grid, Box& box,
                          const StrongPtr<Basalt::LoaderProgress>& progress) {
  Messages log("Extrapolation: ", &box.message);
  if (!modeOf(box.mode)) {
    log.report("ERROR: unknown mode " + box.mode);
    return box.message;
  }
  if (box.dimension != "2D" && box.dimension != "3D") {
    log.report("ERROR: unknown dimension " + box.dimension);
    return box.message;
  }
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  const auto classField =
      positions ? findField(grid, "Classification", log, "ERROR: no f_classification") : nullptr;
  if (!classField)
    return box.message;
  const std::vector<FragmentSlot> fragments = fragmentsOf(*positions);
  for (std::size_t k = 0; k < fragments.size(); ++k) {
    if (progress)
      progress->progress(static_cast<double>(k) / static_cast<double>(fragments.size()),
                         "extrapolation");
    const FragmentSlot& slot = fragments[k];
    const auto xyz = fragmentArray<point>(*positions, slot);
    const auto cls = fragmentArray<unsigned char>(*classField, slot);
    if (!xyz) {
      log.report("ERROR: no m_vertices");
      continue;
    }
    if (!cls || cls->size() != xyz->size()) {
      log.report("ERROR: no m_classification");
      continue;
    }
    const StrongPtr<BoundingBox> bbox = fragmentBBox(slot);
    if (!bbox) {
      log.report("ERROR: no fragment bbox");
      continue;
    }
    FragmentOutput<unsigned char> classes(classField, slot.id, xyz->size()); // in place
    MultiArray<1, unsigned char> view = classes.view();
    extrapolationOfMultiArray(xyz->view(), bbox, box, view);
    classes.commit();
  }
  std::string info;
  Tressel::getRange<unsigned char>(*classField, info, true);
  if (progress)
    progress->progress(1.0, "extrapolation");
  return box.message;
}

} // namespace Quorvel
