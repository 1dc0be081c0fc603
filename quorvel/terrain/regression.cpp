// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: planar regression of grids. Candidates are reclassified by their distance from the
// plane through their neighbours, in rounds: a tree over the points of the tree classes is built
// from the classes at the start of every round, so a point that a round reclassifies enters or
// leaves the tree in the next one, and candidates with too few neighbours search twice as far.
#include "quorvel/core/core.hpp"
#include "quorvel/geometry/detail/planes.hpp"
#include "quorvel/spatial/spatial.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/detail/rounds.hpp"
#include "quorvel/terrain/terrain.hpp"

#include "vantor/trees.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <type_traits>

namespace Quorvel {

namespace detail {

RegressionStep::Outcome RegressionStep::outcome(std::size_t i,
                                                const std::vector<unsigned>& neighbours,
                                                std::uint32_t lastCount,
                                                std::vector<point>& scratch) const {
  const auto found = static_cast<std::uint32_t>(neighbours.size());
  if (found == lastCount || found <= 3)
    return {found, false};
  scratch.clear();
  for (const unsigned j : neighbours)
    if (j != i)
      scratch.push_back(positions[j]);
  Plane plane;
  if (!planarRegressionInPlace(scratch, plane, quantile))
    return {found, false};
  return {found,
          range.contains(computeDistanceOfPointFromPlane(plane, positions[i]), RangeTolerance)};
}

void RegressionStep::apply(const Outcome& o, unsigned char& cls, double& radius,
                           std::uint32_t& lastCount) const {
  if (o.found == lastCount)
    return; // the same neighbourhood as in the last round: the same plane
  lastCount = o.found;
  if (o.found <= 3) {
    radius *= 2;
    return;
  }
  if (o.inRange)
    cls = target < 0 ? static_cast<unsigned char>(cls + 100) : static_cast<unsigned char>(target);
}

} // namespace detail

namespace {

using Box = PlanarRegressionParameterBox;

// True for a class whose points the rounds' trees hold.
bool inTreeClass(unsigned char cls, const Box& box) {
  const double c = cls;
  return box.source.contains(c, RangeTolerance) || box.additional.contains(c, RangeTolerance);
}

// The tree of one round over the points whose class is in source or additional.
template <class Tree>
StrongPtr<Tree> roundTree(const MultiArray<1, const point>& positions,
                          const MultiArray<1, unsigned char>& classes, const Box& box,
                          const StrongPtr<BoundingBox>& bbox) {
  return detail::treeOf<Tree>(positions, bbox,
                              [&](std::size_t i) { return inTreeClass(classes[i], box); });
}

// Outcomes of a round for copies of one position. Candidates at one position, with the same
// radius, last count and membership of the tree, have the same neighbourhood and, when their
// position's entries come one after the other in it, the same neighbours without themselves:
// the same outcome. Only large neighbourhoods are remembered, where a search costs more than
// the look-up; so copies by the thousand cost one search each, and other clouds none more.
class CopyOutcomes {
public:
  static constexpr std::uint32_t Many = 64;
  using Key = CopyAnswers<5, detail::RegressionStep::Outcome>::Key;

  static Key keyOf(const point& p, double radius, std::uint32_t lastCount, bool inTree) {
    const auto bits = positionBits(p);
    return {bits[0], bits[1], bits[2], std::bit_cast<std::uint64_t>(radius),
            std::uint64_t{lastCount} << 1 | (inTree ? 1 : 0)};
  }
  const detail::RegressionStep::Outcome* find(const Key& key) const { return known_.find(key); }
  // Remembers o for key when the neighbourhood is large and the entries at the position are
  // consecutive in it.
  void remember(const Key& key, const detail::RegressionStep::Outcome& o,
                const std::vector<unsigned>& neighbours,
                const MultiArray<1, const point>& positions) {
    if (o.found <= Many)
      return;
    const std::array<std::uint64_t, 3> position{key[0], key[1], key[2]};
    int runs = 0;
    bool previous = false;
    for (const unsigned j : neighbours) {
      const bool here = positionBits(positions[j]) == position;
      runs += here && !previous ? 1 : 0;
      previous = here;
    }
    if (runs <= 1)
      known_.remember(key, o);
  }

private:
  CopyAnswers<5, detail::RegressionStep::Outcome> known_;
};

// What a thread of a point step keeps from one block of points to the next.
struct StepRoom {
  std::vector<unsigned> neighbours;
  std::vector<point> scratch;
  CopyOutcomes copies;
};

// One round's point step over all candidates; inTree(i) tells whether the round's tree holds
// point i. A point's outcome depends on its position, radius, last count and membership alone,
// so the points go in blocks, eight a thread taken one at a time: where the candidates and their
// neighbourhoods are uneven (a class here, none there), no thread is left working alone.
template <class Tree, class InTree>
void pointStep(const Tree* tree, const MultiArray<1, const point>& positions,
               MultiArray<1, unsigned char>& classes, const Box& box,
               Basalt::ArrayVector<double>& radii, Basalt::ArrayVector<std::uint32_t>& counts,
               const InTree& inTree) {
  const detail::RegressionStep step{positions, box.range, box.target,
                                    static_cast<unsigned>(box.quantile)};
  const std::size_t n = positions.size();
  const int threads = maximumThreadsMinusOne();
  inTakenBlocksWith(
      n, threads, 1, [] { return StepRoom(); },
      [&](StepRoom& room, std::size_t begin, std::size_t end) {
        auto& [neighbours, scratch, copies] = room;
        for (std::size_t i = begin; i < end; ++i) {
          if (!box.working_range.contains(static_cast<double>(classes[i]), RangeTolerance))
            continue;
          const auto key = CopyOutcomes::keyOf(positions[i], radii[i], counts[i], inTree(i));
          if (const auto* known = copies.find(key)) {
            step.apply(*known, classes[i], radii[i], counts[i]);
            continue;
          }
          neighbours.clear();
          if (tree)
            tree->getRange(positions[i], radii[i], neighbours);
          const auto o = step.outcome(i, neighbours, counts[i], scratch);
          copies.remember(key, o, neighbours, positions);
          step.apply(o, classes[i], radii[i], counts[i]);
        }
      });
}

// What std::max_element gives of the radii (a NaN first, else the largest of the others), by
// blocks on the threads: the round's stop needs it at every round.
double largest(const Basalt::ArrayVector<double>& radii, int threads) {
  std::vector<double> part(static_cast<std::size_t>(std::max(threads, 1)),
                           -std::numeric_limits<double>::infinity());
  inStaticBlocks(radii.size(), threads, [&](std::size_t begin, std::size_t end, std::size_t k) {
    for (std::size_t i = begin; i < end; ++i)
      part[k] = radii[i] > part[k] ? radii[i] : part[k];
  });
  return std::isnan(radii[0]) ? radii[0] : *std::max_element(part.begin(), part.end());
}

// The rounds with a tree of type Tree (none when Tree is void); returns how many ran their point
// step.
template <class Tree>
int rounds(const MultiArray<1, const point>& positions, MultiArray<1, unsigned char>& classes,
           const StrongPtr<BoundingBox>& bbox, Box& box) {
  const std::size_t n = positions.size();
  const int threads = maximumThreadsMinusOne();
  // Written on the threads that read them in the point steps, each its own block.
  Basalt::ArrayVector<double> radii(n);
  Basalt::ArrayVector<std::uint32_t> counts(n);
  Basalt::ArrayVector<std::uint8_t> inTree;
  inStaticBlocks(n, threads, [&](std::size_t begin, std::size_t end) {
    std::fill(radii.begin() + static_cast<std::ptrdiff_t>(begin),
              radii.begin() + static_cast<std::ptrdiff_t>(end), box.radius);
    std::fill(counts.begin() + static_cast<std::ptrdiff_t>(begin),
              counts.begin() + static_cast<std::ptrdiff_t>(end), 0u);
  });
  double previousMaximum = box.radius;
  std::size_t previousSize = 0;
  int round = 0;
  for (; round < box.maximum_iteration; ++round) {
    const double maximum = n ? largest(radii, threads) : box.radius;
    using Built = std::conditional_t<std::is_void_v<Tree>, Vantor::QuadTree<unsigned>, Tree>;
    StrongPtr<Built> tree;
    if constexpr (!std::is_void_v<Tree>)
      tree = roundTree<Tree>(positions, classes, box, bbox);
    const std::size_t size = tree ? tree->size() : 0;
    if (maximum == previousMaximum && size == previousSize)
      break;
    previousSize = size;
    // Membership as the tree was built, from the classes at the start of the round: a point's
    // class changes only in its own step (copies share whether the box takes them).
    inTree.resize(tree ? n : 0);
    inStaticBlocks(inTree.size(), threads, [&](std::size_t begin, std::size_t end) {
      for (std::size_t i = begin; i < end; ++i)
        inTree[i] = inTreeClass(classes[i], box) ? 1 : 0;
    });
    pointStep(tree.get(), positions, classes, box, radii, counts,
              [&](std::size_t i) { return i < inTree.size() && inTree[i] != 0; });
    previousMaximum = maximum;
  }
  return round;
}

} // namespace

void PlanarRegressionParameterBox::print() const {
  printFields(*this, &PlanarRegressionParameterBox::fieldname);
}

int detail::regressFragment(const MultiArray<1, const point>& positions,
                            const StrongPtr<BoundingBox>& bbox, Box& box,
                            MultiArray<1, unsigned char>& classes) {
  const std::size_t n = std::min(positions.size(), classes.size());
  const MultiArray<1, const point> xyz =
      positions.subarray(Tressel::MultiIndex<1>(0), Tressel::MultiIndex<1>(n));
  if (box.reset >= 0)
    for (std::size_t i = 0; i < classes.size(); ++i)
      classes[i] = static_cast<unsigned char>(box.reset);
  if (box.working_range.empty())
    box.working_range = box.source;
  if (box.dimension == "2D")
    return rounds<Vantor::QuadTree<unsigned>>(xyz, classes, bbox, box);
  if (box.dimension == "3D")
    return rounds<Vantor::OcTree<unsigned>>(xyz, classes, bbox, box);
  return rounds<void>(xyz, classes, bbox, box);
}

bool planarRegressionOfMultiArray(const MultiArray<1, const point>& positions,
                                  const StrongPtr<BoundingBox>& bbox, Box& box,
                                  MultiArray<1, unsigned char>& classes) {
  detail::regressFragment(positions, bbox, box, classes);
  return true;
}

std::string planarRegressionOfGrid(const StrongPtr<Grid>& grid, Box& box,
                                   const StrongPtr<Basalt::LoaderProgress>& progress) {
  box.print();
  const StrongPtr<Field> positions = grid ? grid->CartesianPositions() : nullptr;
  if (!positions)
    return "ERROR: no f_vertices found";
  const StrongPtr<Field> classField = (*grid)["Classification"];
  const std::vector<FragmentSlot> fragments = fragmentsOf(*positions);
  for (std::size_t k = 0; k < fragments.size(); ++k) {
    if (progress)
      progress->progress(static_cast<double>(k) / static_cast<double>(fragments.size()),
                         "planar regression");
    Basalt::Console::write("PlanarRegressionIteration, INFO: procession " + std::to_string(k + 1) +
                           " / " + std::to_string(positions->nFragments()) + " \t\r");
    const FragmentSlot& slot = fragments[k];
    const auto xyz = fragmentArray<point>(*positions, slot);
    if (!classField || !slot.id) {
      box.message = "ERROR: no m_classification";
      continue;
    }
    // A fragment without classes starts from zeros, and so does the source range from here on.
    if (!fragmentArray<unsigned char>(*classField, slot))
      box.source = MultiRange<double>("0");
    if (!xyz) {
      box.message = "ERROR: no m_coordinates";
      continue;
    }
    FragmentOutput<unsigned char> classes(classField, slot.id, xyz->size());
    const StrongPtr<BoundingBox> bbox = fragmentBBox(slot);
    if (!bbox) {
      box.message = "ERROR: no fragment bbox";
      continue;
    }
    MultiArray<1, unsigned char> view = classes.view();
    planarRegressionOfMultiArray(xyz->view(), bbox, box, view);
    if (!classes.commit())
      box.message = "ERROR: no m_classification";
  }
  if (progress)
    progress->progress(1.0, "planar regression");
  return box.message;
}

} // namespace Quorvel
