// Quorvel: the spatial index and the neighbourhood rules every algorithm shares.
//
// Neighbourhood rules, the same for every tree and query of the library:
//  - distances are compared squared, over x, y and z for 3-D trees and over x and y for 2-D
//    trees (which store z but ignore it);
//  - a radius query is inclusive (squared distance <= radius^2) and finds the query point itself
//    when it is in the tree;
//  - results come in tree order (children 0 to 2^D - 1, leaves in insertion order); the ordered
//    forms of OcTreeStd sort by squared distance and keep tree order among equal distances;
//  - a nearest-neighbour query is a nearest-neighbour search bounded by the radius; among
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

// Sorts (key, index) pairs by key, stably, with a radix sort over the bits that the largest key
// uses.
void sortByKey(std::vector<std::pair<std::uint64_t, std::uint32_t>>& items);

// Spreads the low 21 bits of v to every third bit: one axis of a Morton (z-order) code, whose
// order keeps points near each other in space near each other in memory.
constexpr std::uint64_t spreadBits(std::uint64_t v) {
  v &= 0x1FFFFF;
  v = (v | v << 32) & 0x1F00000000FFFFull;
  v = (v | v << 16) & 0x1F0000FF0000FFull;
  v = (v | v << 8) & 0x100F00F00F00F00Full;
  v = (v | v << 4) & 0x10C30C30C30C30C3ull;
  v = (v | v << 2) & 0x1249249249249249ull;
  return v;
}

} // namespace Quorvel

namespace Tarrow {

using Vantor::PhysicalSpace::point;

extern template class OcTreeStd<unsigned int, point, 2>;
extern template class OcTreeStd<unsigned int, point, 3>;
extern template class OcTreeStd<unsigned long long, point, 2>;
extern template class OcTreeStd<unsigned long long, point, 3>;

} // namespace Tarrow
