// Quorvel: the spatial index and the neighbourhood rules every algorithm shares.
//
// Neighbourhood rules, the same for every tree and query of the library:
//  - distances are compared squared, over x, y and z for 3-D trees and over x and y for 2-D
//    trees (which store z but ignore it);
//  - a radius query is inclusive (squared distance <= radius^2) and finds the query point itself
//    when it is in the tree;
//  - results come in tree order (children 0 to 2^D - 1, leaves in insertion order); the ordered
//    forms of OcTreeStd sort by squared distance and keep tree order among equal distances;
//  - a nearest-neighbour question is a nearest-neighbour search bounded by the radius; among
//    equally near points the smallest index wins (the framework trees order their maps so);
//  - a box query is half-open (lo <= p < hi), the rectangle query of the planimetric trees
//    closed (lo <= p <= hi);
//  - a point outside a tree's box, or with a NaN coordinate, is refused with the line
//    "OcTreeStd::insert() ERROR out of bounds!   ..." and the caller's loop goes on;
//  - any number of identical points may be inserted: a leaf that cannot be divided any more
//    holds them beyond its capacity.
#pragma once

#include "tarrow/OcTreeStd.hpp"
#include "tressel/Trees.hpp"
#include "vantor/Trees.hpp"

#include <cstdint>
#include <utility>
#include <vector>

namespace Quorvel {

// Sorts (key, index) pairs by key, stably, with a least-significant-digit radix sort: linear
// time, passes only over the digits that the largest key uses. For voxel and cell keys of
// millions of points, several times faster than a comparison sort.
void sortByKey(std::vector<std::pair<std::uint64_t, std::uint32_t>>& items);

// The indices 0 .. n-1 of positions in Morton (Z-curve) order of their x and y within box: a
// loop that queries a tree point by point in this order visits neighbouring leaves one after
// the other and keeps them in cache. Points outside the box or not finite come last, in index
// order.
std::vector<std::uint32_t>
spatialOrder(const Tressel::MultiArray<1, const Vantor::PhysicalSpace::point>& positions,
             const Vantor::BoundingBox& box);

} // namespace Quorvel

namespace Tarrow {

using Vantor::PhysicalSpace::point;

extern template class OcTreeStd<unsigned int, point, 2>;
extern template class OcTreeStd<unsigned int, point, 3>;
extern template class OcTreeStd<unsigned long long, point, 2>;
extern template class OcTreeStd<unsigned long long, point, 3>;

} // namespace Tarrow
