// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: bounding boxes of fragments and of whole positions fields.
#pragma once

#include "tressel/field.hpp"
#include "vantor/bounding_box.hpp"

namespace Tressel {

using Vantor::BoundingBox;

// The stored box of one fragment, attached to its creator. It belongs to the creator's data at
// the age it was stored; touching the data makes it stale.
struct FragmentBBox : Basalt::InterfaceBase {
  StrongPtr<BoundingBox> box;
  unsigned long long age = 0;
};

// Stores box as the bounding box of the creator's (positions) data.
void setFragmentBBox(const StrongPtr<CreativeArrayBase>& creator, const BoundingBox& box);

// The stored bounding box of one fragment of a positions field; empty when none is stored or
// the stored one is stale. When creator is empty it is looked up in field.
StrongPtr<BoundingBox> getFragmentBBox(const StrongPtr<FragmentID>& id,
                                       const StrongPtr<CreativeArrayBase>& creator,
                                       const StrongPtr<Field>& field);

// What ExpandBBox does with the fragment's own box once it has computed it.
enum BBoxCreation : int {
  BBoxComputeOnly = 0, // only grow the given box
  BBoxStore = 1        // also store the fragment's box for getFragmentBBox
};

// Grows box by every point of the creator's positions (any rank of PhysicalSpace::point),
// creating the box when the pointer is empty. Points with a non-finite coordinate are left out.
// True when the creator held positions and the box holds at least one point afterwards. The
// points are gone through on `threads` threads.
bool ExpandBBox(StrongPtr<BoundingBox>& box, const StrongPtr<CreativeArrayBase>& creator,
                int creationMode = BBoxComputeOnly, int threads = 1);

// Grows box by all fragments of a positions field (stored fragment boxes where they are
// current, the points otherwise). True when the box holds at least one point afterwards.
bool expandBoundingBox(StrongPtr<BoundingBox>& box, const Field& positions);

// The bounding box of a whole positions field; empty when it holds no finite point.
StrongPtr<BoundingBox> getBoundingBox(const Field& positions);

} // namespace Tressel
