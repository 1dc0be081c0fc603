// Quorvel framework, geometry: the point trees of the algorithms, 3-D (OcTree) and planimetric
// (QuadTree), keyed by point index.
#pragma once

#include "basalt/StrongPtr.hpp"
#include "tarrow/OcTreeStd.hpp"
#include "vantor/BoundingBox.hpp"

#include <cstddef>
#include <map>
#include <memory>
#include <vector>

namespace Vantor {

// A bucket tree over a bounding box. Built on Tarrow::OcTreeStd, so queries follow its rules:
// distances are squared, over x, y and z (D = 3) or x and y (D = 2), the radius is inclusive,
// and equally near entries come in tree order. A tree made from an empty box pointer or an empty
// box is not valid: it takes no points and finds nothing.
//
// Thread-safety: insert from one thread; afterwards const queries from many threads at once.
template <class Index, int D>
class BucketTree : public Basalt::ReferenceBase {
public:
  using point = PhysicalSpace::point;
  using Tree = Tarrow::OcTreeStd<Index, point, D>;

  BucketTree(const Basalt::StrongPtr<BoundingBox>& box, unsigned capacity) {
    if (box && !box->empty())
      tree_ = std::make_unique<Tree>(box->min(), box->max(), capacity);
  }

  bool valid() const { return tree_ != nullptr; }

  // Stores p under index; a point outside the box is refused with the tree's message.
  bool insert(const point& p, const Index& index) { return tree_ && tree_->insert(p, index); }

  // Number of entries.
  std::size_t size() const { return tree_ ? tree_->getSize() : 0; }

  // Every entry within radius of q, keyed by squared distance, nearest first.
  void getRange(const point& q, double radius, std::multimap<double, Index>& out) const {
    if (tree_)
      tree_->getEuclideanRangeFine(q, radius, out);
  }
  // Every entry within radius of q, appended in tree order.
  void getRange(const point& q, double radius, std::vector<Index>& out) const {
    if (tree_)
      tree_->getEuclideanRangeFine(q, radius, out);
  }
  // The nearest entry within radius (the first entry of getRange's map). False when none.
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
  std::unique_ptr<Tree> tree_;
};

template <class Index>
using OcTree = BucketTree<Index, 3>;

template <class Index>
using QuadTree = BucketTree<Index, 2>;

} // namespace Vantor
