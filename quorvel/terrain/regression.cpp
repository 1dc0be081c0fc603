// Quorvel: planar regression of grids. Candidates are reclassified by their distance from the
// plane through their neighbours, in rounds: a tree over the points of the tree classes is built
// from the classes at the start of every round, so a point that a round reclassifies enters or
// leaves the tree in the next one, and candidates with too few neighbours search twice as far.
#include "quorvel/core/core.hpp"
#include "quorvel/geometry/detail/planes.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/detail/rounds.hpp"
#include "quorvel/terrain/terrain.hpp"

#include "vantor/Trees.hpp"

#include <algorithm>
#include <omp.h>
#include <type_traits>

namespace Quorvel {

namespace detail {

void RegressionStep::operator()(std::size_t i, const std::vector<unsigned>& neighbours,
                                unsigned char& cls, double& radius, std::uint32_t& lastCount,
                                std::vector<point>& scratch) const {
  const auto found = static_cast<std::uint32_t>(neighbours.size());
  if (found == lastCount)
    return; // the same neighbourhood as in the last round: the same plane
  lastCount = found;
  if (found <= 3) {
    radius *= 2;
    return;
  }
  scratch.clear();
  for (const unsigned j : neighbours)
    if (j != i)
      scratch.push_back(positions[j]);
  Plane plane;
  if (!planarRegressionInPlace(scratch, plane, quantile))
    return;
  if (range.contains(computeDistanceOfPointFromPlane(plane, positions[i]), RangeTolerance))
    cls = target < 0 ? static_cast<unsigned char>(cls + 100) : static_cast<unsigned char>(target);
}

} // namespace detail

namespace {

using Box = PlanarRegressionParameterBox;

// The tree of one round over the points whose class is in source or additional.
template <class Tree>
StrongPtr<Tree> roundTree(const MultiArray<1, point>& positions,
                          const MultiArray<1, unsigned char>& classes, const Box& box,
                          const StrongPtr<BoundingBox>& bbox) {
  return detail::treeOf<Tree>(positions, bbox, [&](std::size_t i) {
    const double c = classes[i];
    return box.source.contains(c, RangeTolerance) || box.additional.contains(c, RangeTolerance);
  });
}

// One round's point step over all candidates, in static blocks of n / threads points.
template <class Tree>
void pointStep(const Tree* tree, const MultiArray<1, point>& positions,
               MultiArray<1, unsigned char>& classes, const Box& box, std::vector<double>& radii,
               std::vector<std::uint32_t>& counts) {
  const detail::RegressionStep step{positions, box.range, box.target,
                                    static_cast<unsigned>(box.quantile)};
  detail::inStaticBlocks(positions.size(), [&](std::size_t begin, std::size_t end) {
    std::vector<unsigned> neighbours;
    std::vector<point> scratch;
    for (std::size_t i = begin; i < end; ++i) {
      if (!box.working_range.contains(static_cast<double>(classes[i]), RangeTolerance))
        continue;
      neighbours.clear();
      if (tree)
        tree->getRange(positions[i], radii[i], neighbours);
      step(i, neighbours, classes[i], radii[i], counts[i], scratch);
    }
  });
}

// The rounds with a tree of type Tree (none when Tree is void); returns how many ran their point
// step.
template <class Tree>
int rounds(const MultiArray<1, point>& positions, MultiArray<1, unsigned char>& classes,
           const StrongPtr<BoundingBox>& bbox, Box& box) {
  const std::size_t n = positions.size();
  std::vector<double> radii(n, box.radius);
  std::vector<std::uint32_t> counts(n, 0);
  double previousMaximum = box.radius;
  std::size_t previousSize = 0;
  int round = 0;
  for (; round < box.maximum_iteration; ++round) {
    const double maximum = n ? *std::max_element(radii.begin(), radii.end()) : box.radius;
    using Built = std::conditional_t<std::is_void_v<Tree>, Vantor::QuadTree<unsigned>, Tree>;
    StrongPtr<Built> tree;
    if constexpr (!std::is_void_v<Tree>)
      tree = roundTree<Tree>(positions, classes, box, bbox);
    const std::size_t size = tree ? tree->size() : 0;
    if (maximum == previousMaximum && size == previousSize)
      break;
    previousSize = size;
    pointStep(tree.get(), positions, classes, box, radii, counts);
    previousMaximum = maximum;
  }
  return round;
}

} // namespace

void PlanarRegressionParameterBox::print() const {
  printField("ParameterBox.fieldname: ", fieldname);
  printField("ParameterBox.range: ", range);
  printField("ParameterBox.source: ", source);
  printField("ParameterBox.additional: ", additional);
  printField("ParameterBox.radius: ", radius);
  printField("ParameterBox.target: ", target);
  printField("ParameterBox.maximum_iteration: ", maximum_iteration);
  printField("ParameterBox.reset: ", reset);
  printField("ParameterBox.quantile: ", quantile);
  printField("ParameterBox.dimension: ", dimension);
}

int detail::regressFragment(const MultiArray<1, point>& positions,
                            const StrongPtr<BoundingBox>& bbox, Box& box,
                            MultiArray<1, unsigned char>& classes) {
  const std::size_t n = std::min(positions.size(), classes.size());
  const MultiArray<1, point> xyz =
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

bool planarRegressionOfMultiArray(const MultiArray<1, point>& positions,
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
