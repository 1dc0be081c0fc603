// Quorvel: the square-neighbourhood terrain measures, relative height and share of points below.
// Each compute builds its own quad tree over the fragment and asks it for every point's closed
// x-y square; the height loop runs on the library's threads with chunks of one point, the belows
// loop on the runtime's default threads with chunks of 15000 points.
#include "quorvel/core/core.hpp"
#include "quorvel/terrain/detail/kernels.hpp"
#include "quorvel/terrain/terrain.hpp"

#include "tressel/Trees.hpp"

namespace Tressel {

namespace {

using Quorvel::point;
using Index = unsigned long long;
using Square = std::vector<Index>;

// A quad tree over the points that `takes` accepts, keyed by position index; over all points
// when everyPoint.
template <class Takes>
StrongPtr<Vantor::QuadTree<Index>> treeOf(const MultiArray<1, const point>& positions,
                                          const StrongPtr<Vantor::BoundingBox>& bbox,
                                          bool everyPoint, const Takes& takes) {
  if (everyPoint)
    return createQuadTree<Index>(positions, positions.size(), bbox);
  auto tree = std::make_shared<Vantor::QuadTree<Index>>(bbox, 64);
  if (!tree->valid())
    return tree;
  tree->reserve(positions.size());
  for (std::size_t i = 0; i < positions.size(); ++i)
    if (takes(i))
      tree->insert(positions[i], static_cast<Index>(i));
  return tree;
}

// The indices of every point of the tree in the closed square of half width h about p.
void squareOf(const Vantor::QuadTree<Index>& tree, const point& p, double h, Square& out) {
  out.clear();
  tree.getRectangle(point{p.x - h, p.y - h, p.z}, point{p.x + h, p.y + h, p.z}, out);
}

// Relative heights of the points that `takes` accepts, among those points.
template <class Takes>
void heights(double halfWidth, const MultiArray<1, float>& result,
             const MultiArray<1, const point>& positions,
             const StrongPtr<Vantor::BoundingBox>& bbox, bool everyPoint, const Takes& takes) {
  const auto tree = treeOf(positions, bbox, everyPoint, takes);
  const double h = Quorvel::detail::squareHalfWidthInUse(halfWidth);
  const long long n = static_cast<long long>(std::min(positions.size(), result.size()));
#pragma omp parallel num_threads(Quorvel::maximumThreadsMinusOne())
  {
    Square square;
#pragma omp for schedule(dynamic, 1)
    for (long long i = 0; i < n; ++i) {
      const auto k = static_cast<std::size_t>(i);
      if (!takes(k))
        continue;
      squareOf(*tree, positions[k], h, square);
      result[k] = Quorvel::detail::heightAboveLowest(positions[k].z, square, positions);
    }
  }
}

// Shares below of the points that `computes` accepts, among all points.
template <class Computes>
void belows(double halfWidth, const MultiArray<1, unsigned char>& result,
            const MultiArray<1, const point>& positions, const StrongPtr<Vantor::BoundingBox>& bbox,
            const Computes& computes) {
  const auto tree = createQuadTree<Index>(positions, positions.size(), bbox);
  const double h = Quorvel::detail::squareHalfWidthInUse(halfWidth);
  const long long n = static_cast<long long>(std::min(positions.size(), result.size()));
#pragma omp parallel
  {
    Square square;
#pragma omp for schedule(dynamic, 15000)
    for (long long i = 0; i < n; ++i) {
      const auto k = static_cast<std::size_t>(i);
      if (!computes(k))
        continue;
      squareOf(*tree, positions[k], h, square);
      result[k] = Quorvel::detail::shareBelow(positions[k].z, square, positions);
    }
  }
}

} // namespace

bool RelativeHeightBox::compute(const MultiArray<1, float>& result,
                                const MultiArray<1, const point>& positions,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  heights(squareHalfWidth, result, positions, bbox, true, [](std::size_t) { return true; });
  return true;
}

bool RelativeHeightBox::compute(const MultiArray<1, float>& result,
                                const MultiArray<1, const point>& positions,
                                const MultiArray<1, const unsigned char>& pointClasses,
                                const Vantor::MultiRange<double>& classes,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  heights(squareHalfWidth, result, positions, bbox, false, [&](std::size_t i) {
    return i < pointClasses.size() &&
           classes.contains(static_cast<double>(pointClasses[i]), Quorvel::RangeTolerance);
  });
  return true;
}

bool RelativeBelowsBox::compute(const MultiArray<1, unsigned char>& result,
                                const MultiArray<1, const point>& positions,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  belows(squareHalfWidth, result, positions, bbox, [](std::size_t) { return true; });
  return true;
}

bool RelativeBelowsBox::compute(const MultiArray<1, unsigned char>& result,
                                const MultiArray<1, const point>& positions,
                                const MultiArray<1, const unsigned char>& pointClasses,
                                const StrongPtr<Vantor::BoundingBox>& bbox) const {
  belows(squareHalfWidth, result, positions, bbox,
         [&](std::size_t i) { return i < pointClasses.size() && pointClasses[i] != 4; });
  return true;
}

} // namespace Tressel
