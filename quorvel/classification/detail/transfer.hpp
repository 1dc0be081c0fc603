// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what the classification transfer drivers share: class tests, band lookup, trees over
// source points, and the steps both drivers take on their inputs.
#pragma once

#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"
#include "vantor/trees.hpp"

#include <algorithm>
#include <array>

namespace Quorvel::detail {

using Box = ClassificationTransferParameterBox;

inline constexpr const char* TransferTag = "ClassificationTransfer: ";
inline constexpr unsigned TransferBucketCapacity = 64;
// Queries a block of the tree's searches holds at least: a block's searches go in the tree's
// order, each starting from the answer before it, and a short block starts afresh too often.
inline constexpr std::size_t SearchBlock = 16384;

// Which class bytes lie in a class range: the range is asked once for each of the 256, so a
// loop over millions of points only looks a byte up.
class ClassSet {
public:
  explicit ClassSet(const MultiRange<double>& range) {
    for (int c = 0; c < 256; ++c)
      in_[c] = range.contains(static_cast<double>(c), RangeTolerance);
  }
  bool operator()(unsigned char cls) const { return in_[cls]; }

private:
  std::array<bool, 256> in_{};
};

// The band class for a nearest source point at squared distance d2: the class of the first band
// whose key (squared radius) is greater than d2. False when no band is, and cls is kept.
inline bool bandClass(const std::map<double, std::int32_t>& bands, double d2, unsigned char& cls) {
  const auto band = bands.upper_bound(d2);
  if (band == bands.end())
    return false;
  cls = static_cast<unsigned char>(band->second);
  return true;
}

// The per-fragment transfer translates by the offset only when its x or y is positive.
inline bool offsetApplies(const Vantor::PhysicalSpace::vector& offset) {
  return offset.x > 0 || offset.y > 0;
}

// The box grown by r on every side.
inline BoundingBox widened(const BoundingBox& box, double r) {
  const Vantor::PhysicalSpace::vector by(r, r, r);
  return BoundingBox(box.min() - by, box.max() + by);
}

// Inserts the first count source points whose class is in `classes`, under their index, on
// `threads` threads.
template <class Tree, class Positions, class Classes>
void fillTree(Tree& tree, const ClassSet& classes, const Positions& xyz, const Classes& cls,
              std::size_t count, int threads) {
  tree.insertEach(
      count, threads, [&](std::size_t i) { return classes(cls[i]); },
      [&](std::size_t i) { return xyz[i]; });
}

// Calls f with a fresh tree of the box's dimension (QuadTree for 2, OcTree for 3) over bbox;
// false, without calling f, for any other dimension.
template <class F>
bool withTree(int dimension, const StrongPtr<BoundingBox>& bbox, F&& f) {
  if (dimension == 2) {
    f(std::make_shared<Vantor::QuadTree<unsigned>>(bbox, TransferBucketCapacity));
    return true;
  }
  if (dimension == 3) {
    f(std::make_shared<Vantor::OcTree<unsigned>>(bbox, TransferBucketCapacity));
    return true;
  }
  return false;
}

// The fields a transfer reads and writes, looked up once by its driver.
struct TransferInputs {
  StrongPtr<Field> sourcePositions, sourceClasses, targetPositions, targetClasses;
  bool created = false; // the target class field was made by this transfer
};

// The last step of both drivers' lookup. A dimension without a tree is refused before anything
// on the target changes; then the target's class field of that name is found, or made here (its
// classes then start at 0 everywhere, as if unclassified, and in.created says so).
inline bool lookUpTargetClasses(const StrongPtr<Grid>& target, const std::string& name,
                                const Box& box, Messages& log, TransferInputs& in) {
  if (box.dimension != 2 && box.dimension != 3) {
    log.report("ERROR: no tree");
    return false;
  }
  in.targetClasses = findOptionalField(target, name);
  in.created = !in.targetClasses;
  if (in.created)
    in.targetClasses = outputField<unsigned char>(target, name);
  return true;
}

// Sets the count classes of a target fragment to 0.
inline void zeroClasses(const StrongPtr<Field>& classes, const StrongPtr<FragmentID>& id,
                        std::size_t count) {
  FragmentOutput<unsigned char> zero(classes, id, count);
  std::fill(zero.data(), zero.data() + zero.size(), 0);
  zero.commit();
}

// A fragment's positions and classes, read together.
struct ClassedPoints {
  StrongPtr<const MemArray<1, point>> xyz;
  StrongPtr<const MemArray<1, unsigned char>> cls;
};

// Reads the positions of a source fragment and its classes from `classes`; empty after reporting
// noPositions, or noClasses when the classes are missing or not one per point.
inline ClassedPoints readClassedPoints(const FragmentSlot& positions, const Field& classes,
                                       Messages& log, const char* noPositions,
                                       const char* noClasses) {
  ClassedPoints read;
  read.xyz =
      Tressel::arrayCast<1, point>(positions.creator ? positions.creator->getData() : nullptr);
  if (!read.xyz) {
    log.report(noPositions);
    return {};
  }
  read.cls = fragmentArray<unsigned char>(classes, *positions.id);
  if (!read.cls || read.cls->size() != read.xyz->size()) {
    log.report(noClasses);
    return {};
  }
  return read;
}

} // namespace Quorvel::detail
