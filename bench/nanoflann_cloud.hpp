// SPDX-License-Identifier: BSD-3-Clause
// nanoflann over a vector of points, the yardstick of the tree benchmarks.
#pragma once

#include "vantor/physical_space.hpp"

#include <nanoflann.hpp>

#include <vector>

namespace bench {

// nanoflann reads the points through this adaptor; a tree of dimension 2 uses x and y only.
struct CloudAdaptor {
  const std::vector<Vantor::PhysicalSpace::point>& points;
  std::size_t kdtree_get_point_count() const { return points.size(); }
  double kdtree_get_pt(std::size_t i, std::size_t d) const {
    return points[i][static_cast<int>(d)];
  }
  template <class BBox>
  bool kdtree_get_bbox(BBox&) const {
    return false;
  }
};

template <int D>
using KdTree =
    nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<double, CloudAdaptor>,
                                        CloudAdaptor, D, unsigned>;

} // namespace bench
