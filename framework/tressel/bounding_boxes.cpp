// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: fragment and field bounding boxes.
#include "tressel/bounding_boxes.hpp"

#include "basalt/chunk.hpp"

#include <algorithm>
#include <limits>

namespace Tressel {

using Vantor::PhysicalSpace::point;

void setFragmentBBox(const StrongPtr<CreativeArrayBase>& creator, const BoundingBox& box) {
  if (!creator)
    return;
  auto stored = std::make_shared<FragmentBBox>();
  stored->box = std::make_shared<BoundingBox>(box);
  stored->age = creator->age();
  creator->addInterface<FragmentBBox>(stored);
}

StrongPtr<BoundingBox> getFragmentBBox(const StrongPtr<FragmentID>& id,
                                       const StrongPtr<CreativeArrayBase>& creator,
                                       const StrongPtr<Field>& field) {
  auto c = creator ? creator : (field ? field->getCreator(id) : nullptr);
  if (!c)
    return nullptr;
  auto stored = c->getInterface<FragmentBBox>();
  if (!stored || !stored->box || stored->age != c->age() || stored->box->empty())
    return nullptr;
  // A copy, so that callers may widen or move their box without changing the stored one.
  return std::make_shared<BoundingBox>(*stored->box);
}

namespace {

// The box of the finite points of one fragment.
bool fragmentBox(const CreativeArrayBase& creator, BoundingBox& out, int threads) {
  const auto& data = creator.peekData();
  const auto chunk = data ? Basalt::chunkCast<point>(data->myChunk()) : nullptr;
  if (!chunk)
    return false;
  out = BoundingBox::of(chunk->view().data(), chunk->view().size(), threads);
  return true;
}

} // namespace

bool ExpandBBox(StrongPtr<BoundingBox>& box, const StrongPtr<CreativeArrayBase>& creator,
                int creationMode, int threads) {
  BoundingBox own;
  if (!creator || !fragmentBox(*creator, own, threads))
    return false;
  if (creationMode == BBoxStore)
    setFragmentBBox(creator, own);
  if (!box)
    box = std::make_shared<BoundingBox>();
  box->expand(own);
  return !box->empty();
}

bool expandBoundingBox(StrongPtr<BoundingBox>& box, const Field& positions) {
  if (!box)
    box = std::make_shared<BoundingBox>();
  positions.iterate(
      [&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
        if (auto stored = getFragmentBBox(id, creator, nullptr))
          box->expand(*stored);
        else
          ExpandBBox(box, creator);
        return true;
      });
  return !box->empty();
}

StrongPtr<BoundingBox> getBoundingBox(const Field& positions) {
  StrongPtr<BoundingBox> box;
  return expandBoundingBox(box, positions) ? box : nullptr;
}

} // namespace Tressel
