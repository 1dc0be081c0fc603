// Quorvel framework, geometry: the point trees of the algorithms, 3-D (OcTree) and planimetric
// (QuadTree), keyed by point index.
#pragma once

#include "basalt/StrongPtr.hpp"
#include "tarrow/OcTreeStd.hpp"
#include "vantor/BoundingBox.hpp"

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <vector>

namespace Vantor {

// A bucket tree over a bounding box. Built on Tarrow::OcTreeStd, so queries follow its rules:
// distances are squared, over x, y and z (D = 3) or x and y (D = 2), the radius is inclusive,
// and the vector form lists entries in tree order. A tree made from an empty box pointer or an
// empty box is not valid: it takes no points and finds nothing. Nearest-neighbour answers break
// ties by the smallest index, whatever the tree's shape.
//
// Thread-safety: insert from one thread; afterwards const queries from many threads at once.
template <class Index, int D>
class BucketTree : public Basalt::ReferenceBase {
public:
  using point = PhysicalSpace::point;
  using Tree = Tarrow::OcTreeStd<Index, point, D>;

  // The tree's root box is the given box grown to a cube (a square in x and y for D = 2) about
  // the same centre: cells then stay cube-shaped, where a flat airborne box would otherwise be
  // cut into thin slabs that every query has to scan. Points outside the given box are still
  // refused, with the tree's message for that box.
  BucketTree(const Basalt::StrongPtr<BoundingBox>& box, unsigned capacity) {
    if (!box || box->empty())
      return;
    box_ = *box;
    double side = 0.0;
    for (int k = 0; k < D; ++k)
      side = std::max(side, box->max()[k] - box->min()[k]);
    point lo = box->min(), hi = box->max();
    for (int k = 0; k < D; ++k) {
      const double centre = (box->min()[k] + box->max()[k]) / 2;
      lo[k] = std::min(lo[k], centre - side / 2);
      hi[k] = std::max(hi[k], centre + side / 2);
    }
    tree_ = std::make_unique<Tree>(lo, hi, capacity);
  }

  bool valid() const { return tree_ != nullptr; }

  // Stores p under index; a point outside the box is refused with the tree's message.
  bool insert(const point& p, const Index& index) {
    return tree_ && Tarrow::acceptsPoint<D>(p, box_.min(), box_.max()) && tree_->insert(p, index);
  }

  // Number of entries.
  std::size_t size() const { return tree_ ? tree_->getSize() : 0; }

  // Every entry within radius of q, keyed by squared distance, nearest first; equally near
  // entries by ascending index, so the first entry is the one findNearest gives.
  void getRange(const point& q, double radius, std::multimap<double, Index>& out) const {
    if (!tree_)
      return;
    std::vector<std::pair<double, Index>> found;
    tree_->getEuclideanRangeSorted(q, radius, found);
    std::sort(found.begin(), found.end());
    for (const auto& entry : found)
      out.insert(out.end(), entry);
  }
  // Every entry within radius of q, appended in tree order.
  void getRange(const point& q, double radius, std::vector<Index>& out) const {
    if (tree_)
      tree_->getEuclideanRangeFine(q, radius, out);
  }
  // The nearest entry within radius, the smallest index among equally near ones (the first
  // entry of getRange's map). False when none.
  bool findNearest(const point& q, double radius, Index& index, double& squaredDistance) const {
    return tree_ && tree_->findNearest(q, radius, index, squaredDistance);
  }
  // Every entry in the closed box lo <= p <= hi over the D axes, appended in tree order.
  void getRectangle(const point& lo, const point& hi, std::vector<Index>& out) const {
    if (tree_)
      tree_->getClosedBoxRange(lo, hi, out);
  }

  const Tree* tree() const { return tree_.get(); }

private:
  BoundingBox box_;
  std::unique_ptr<Tree> tree_;
};

template <class Index>
using OcTree = BucketTree<Index, 3>;

template <class Index>
using QuadTree = BucketTree<Index, 2>;

} // namespace Vantor
