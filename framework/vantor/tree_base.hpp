// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework: what the point trees share before their bodies: the bounds test of an
// insertion (used by vantor's bucket tree and tarrow's OcTreeStd alike) and the names of vantor's
// bucket trees, so that a header that only holds pointers to a tree need not include trees.hpp.
#pragma once

#include "basalt/console.hpp"
#include "basalt/text.hpp"

namespace Vantor {

// The first of the first D axes on which p lies outside [min, max] (bounds inclusive; a NaN
// coordinate is outside), or D when it lies inside: the test alone, silent, for threads to share.
template <int D, class Point>
int axisOutside(const Point& p, const Point& min, const Point& max) {
  for (int k = 0; k < D; ++k)
    if (!(p[k] >= min[k] && p[k] <= max[k]))
      return k;
  return D;
}

// True when p lies in [min, max] on the first D axes (bounds inclusive). Otherwise, and for a
// NaN coordinate, writes "OcTreeStd::insert() ERROR out of bounds!   <coordinate>   outside of
// [<min>;<max>]" for the first failing axis and answers false. Both tree families refuse points
// with this one message, so a host sees the same line whichever tree it built.
template <int D, class Point>
bool acceptsPoint(const Point& p, const Point& min, const Point& max) {
  const int k = axisOutside<D>(p, min, max);
  if (k == D)
    return true;
  Basalt::Console::write(Basalt::format(
      "OcTreeStd::insert() ERROR out of bounds!   %.12f   outside of [%.12f;%.12f]\n", p[k], min[k],
      max[k]));
  return false;
}

// The bucket tree over x, y and z (D = 3) or x and y (D = 2); defined in vantor/trees.hpp.
template <class Index, int D>
class BucketTree;

template <class Index>
using OcTree = BucketTree<Index, 3>;

template <class Index>
using QuadTree = BucketTree<Index, 2>;

} // namespace Vantor
