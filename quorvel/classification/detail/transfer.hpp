// Quorvel: rules shared by the classification transfer entry points.
#pragma once

#include "quorvel/classification/classification.hpp"
#include "quorvel/core/core.hpp"

#include <array>

namespace Quorvel::detail {

inline constexpr const char* TransferTag = "ClassificationTransfer: ";
inline constexpr unsigned TransferBucketCapacity = 64;

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

// Inserts the first count source points whose class is in `classes`, under their index.
template <class Tree, class Positions, class Classes>
void fillTree(Tree& tree, const ClassSet& classes, const Positions& xyz, const Classes& cls,
              std::size_t count) {
  tree.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    if (classes(cls[i]))
      tree.insert(xyz[i], static_cast<unsigned>(i));
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

} // namespace Quorvel::detail
