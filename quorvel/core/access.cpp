// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: finding the inputs of an algorithm and walking the fragments of a point cloud.
#include "quorvel/core/core.hpp"

namespace Quorvel {

StrongPtr<Tressel::Chart> findChart(const StrongPtr<Grid>& grid, Messages& log,
                                    const std::string& missingText, const std::string& name) {
  auto chart = grid ? grid->findCartesianChart(name) : nullptr;
  if (!chart)
    log.report(missingText);
  return chart;
}

StrongPtr<Representation> findRepresentation(const StrongPtr<Grid>& grid, Messages& log,
                                             const std::string& missingText,
                                             const std::string& chart) {
  auto rep = grid ? grid->getCartesianRepresentation(chart) : nullptr;
  if (!rep)
    log.report(missingText);
  return rep;
}

StrongPtr<Field> findPositions(const StrongPtr<Grid>& grid, Messages& log,
                               const std::string& missingText, const std::string& chart) {
  return findField(grid, Tressel::PositionsFieldName, log, missingText, chart);
}

StrongPtr<Field> findField(const StrongPtr<Grid>& grid, const std::string& name, Messages& log,
                           const std::string& missingText, const std::string& chart) {
  auto field = findOptionalField(grid, name, chart);
  if (!field)
    log.report(missingText);
  return field;
}

StrongPtr<Field> findOptionalField(const StrongPtr<Grid>& grid, const std::string& name,
                                   const std::string& chart) {
  return grid ? (*grid)(chart, name) : nullptr;
}

std::vector<FragmentSlot> fragmentsOf(const Field& field) {
  std::vector<FragmentSlot> slots;
  slots.reserve(field.nFragments());
  field.iterate([&](const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& creator) {
    slots.push_back({id, creator});
    return true;
  });
  return slots;
}

StrongPtr<BoundingBox> fragmentBBox(const FragmentSlot& slot) {
  if (auto stored = Tressel::getFragmentBBox(slot.id, slot.creator, nullptr))
    return stored;
  StrongPtr<BoundingBox> box;
  return Tressel::ExpandBBox(box, slot.creator) ? box : nullptr;
}

} // namespace Quorvel
