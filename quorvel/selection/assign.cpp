// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: assignment of values to fields where an expression holds, with fields made on request.
#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"

#include "basalt/text.hpp"

#include <charconv>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace Quorvel {

void FieldAssignmentParameterBox::print() const {
  printFields(*this);
}

void FieldAssignmentParameterBox::printItems(std::string_view label,
                                             const std::vector<std::string>& items) {
  std::string line;
  for (const std::string& item : items)
    line += (line.empty() ? "" : " ") + item;
  printField(label, line);
}

namespace {

// One FIELD=VALUE item, parsed.
struct Item {
  std::string field;
  Expression value;
  StrongPtr<Field> target;
  std::vector<std::vector<double>> values; // per fragment, every point
};

std::string trimmed(const std::string& text) {
  const auto begin = text.find_first_not_of(" \t");
  const auto end = text.find_last_not_of(" \t");
  return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

// The shortest text that reads back as v.
std::string shortest(double v) {
  char buffer[32];
  return std::string(buffer, std::to_chars(buffer, buffer + sizeof buffer, v).ptr);
}

// Whether the element type T holds v as it is: integers hold whole numbers of their range,
// floating types any number but finite ones beyond their largest.
template <class T>
bool fits(double v) {
  if constexpr (std::is_floating_point_v<T>)
    return !std::isfinite(v) || std::fabs(v) <= static_cast<double>(std::numeric_limits<T>::max());
  else
    return v == std::floor(v) && v >= static_cast<double>(std::numeric_limits<T>::lowest()) &&
           v < std::ldexp(1.0, std::numeric_limits<T>::digits);
}

// "uint8 holds whole numbers from 0 to 255" and the like, for a message.
std::string holds(Tressel::ScalarKind kind) {
  return Tressel::withScalar(kind, [&](auto zero) {
    using T = decltype(zero);
    const std::string name = Tressel::scalarName(kind);
    if constexpr (std::is_floating_point_v<T>)
      return name + " holds numbers up to " +
             Basalt::format("%g", static_cast<double>(std::numeric_limits<T>::max()));
    else
      return name + " holds whole numbers from " +
             std::to_string(std::numeric_limits<T>::lowest()) + " to " +
             std::to_string(std::numeric_limits<T>::max());
  });
}

// The FIELD:TYPE items as (name, kind); throws std::runtime_error on a malformed item, a type of
// no plain number, or a field that exists with another type.
std::vector<std::pair<std::string, Tressel::ScalarKind>>
fieldsToCreate(const StrongPtr<Grid>& grid, const std::vector<std::string>& items) {
  std::vector<std::pair<std::string, Tressel::ScalarKind>> out;
  for (const std::string& item : items) {
    const auto colon = item.rfind(':');
    const std::string name = trimmed(item.substr(0, colon == std::string::npos ? 0 : colon));
    const std::string type = colon == std::string::npos ? "" : trimmed(item.substr(colon + 1));
    const auto kind = Tressel::plainScalar(type);
    if (name.empty() || kind == Tressel::ScalarKind::Opaque || kind == Tressel::ScalarKind::Float80)
      throw std::runtime_error("create \"" + item +
                               "\": expected FIELD:TYPE, TYPE one of int8, uint8, int16, uint16, "
                               "int32, uint32, int64, uint64, float32, float64");
    const auto existing = findOptionalField(grid, name);
    if (existing &&
        existing->getElementType() != Tressel::TresselTypeBase::find(Tressel::scalarName(kind)))
      throw std::runtime_error("create \"" + item + "\": the cloud has a field \"" + name +
                               "\" of type " + existing->getElementType()->name());
    out.emplace_back(name, kind);
  }
  return out;
}

// The FIELD=VALUE items, parsed; throws std::runtime_error on a malformed item or value.
std::vector<Item> itemsToSet(const std::vector<std::string>& texts) {
  std::vector<Item> items;
  for (const std::string& text : texts) {
    const auto equals = text.find('=');
    Item item;
    item.field = trimmed(text.substr(0, equals == std::string::npos ? 0 : equals));
    if (item.field.empty())
      throw std::runtime_error("set \"" + text + "\": expected FIELD=VALUE");
    item.value = Expression(text.substr(equals + 1));
    if (!item.value.error().empty())
      throw std::runtime_error("set \"" + text + "\": " + item.value.error());
    items.push_back(std::move(item));
  }
  return items;
}

// Each item's field, which must be a per-point field of single numbers other than the positions.
void findTargets(const StrongPtr<Grid>& grid, std::vector<Item>& items) {
  for (Item& item : items) {
    if (item.field == "X" || item.field == "Y" || item.field == "Z" ||
        item.field == Tressel::PositionsFieldName)
      throw std::runtime_error("set " + item.field + ": the positions are not assigned");
    item.target = findOptionalField(grid, item.field);
    const auto* type = item.target ? item.target->getElementType() : nullptr;
    if (!item.target)
      throw std::runtime_error("set " + item.field + ": no field \"" + item.field +
                               "\" (--create " + item.field + ":TYPE makes one)");
    if (!type || type->components() != 1 || type->scalar() == Tressel::ScalarKind::Opaque)
      throw std::runtime_error("set " + item.field + ": field \"" + item.field + "\" holds " +
                               (type ? type->name() : std::string("no")) +
                               " elements, not single numbers");
  }
}

// Makes each created field, 0 at every point, unless it is there already.
void createFields(const StrongPtr<Grid>& grid,
                  const std::vector<std::pair<std::string, Tressel::ScalarKind>>& fields) {
  const auto positions = grid->CartesianPositions();
  for (const auto& [name, kind] : fields) {
    if (findOptionalField(grid, name))
      continue;
    Tressel::withScalar(kind, [&, &name = name](auto zero) {
      using T = decltype(zero);
      const auto field = outputField<T>(grid, name);
      for (const FragmentSlot& slot : fragmentsOf(*positions)) {
        const auto xyz = fragmentArray<point>(*positions, slot);
        FragmentOutput<T> out(field, slot.id, xyz ? xyz->size() : 0);
        out.commit();
      }
      return 0;
    });
  }
}

// The values of every item and the condition at every fragment; throws when an array is
// missing or a value at a chosen point does not fit its field.
void evaluateItems(const StrongPtr<Grid>& grid, const Expression& where,
                   const std::vector<FragmentSlot>& slots, std::vector<Item>& items,
                   std::vector<std::vector<unsigned char>>& masks) {
  for (const FragmentSlot& slot : slots) {
    masks.emplace_back();
    const auto xyz = fragmentArray<point>(*grid->CartesianPositions(), slot);
    if (!xyz)
      throw std::runtime_error("no positions in a fragment");
    if (where.empty())
      masks.back().assign(xyz->size(), 1);
    else if (!where.mask(grid, *slot.id, masks.back()))
      throw std::runtime_error("a field of \"" + where.text() + "\" has no values in a fragment");
    for (Item& item : items) {
      item.values.emplace_back();
      if (!item.value.values(grid, *slot.id, item.values.back()))
        throw std::runtime_error("a field of \"" + item.value.text() +
                                 "\" has no values in a fragment");
      const auto kind = item.target->getElementType()->scalar();
      const auto& values = item.values.back();
      for (std::size_t i = 0; i < values.size(); ++i)
        if (masks.back()[i] &&
            !Tressel::withScalar(kind, [&](auto zero) { return fits<decltype(zero)>(values[i]); }))
          throw std::runtime_error("set " + item.field + ": the value " + shortest(values[i]) +
                                   " of \"" + item.value.text() +
                                   "\" does not fit: " + holds(kind));
    }
  }
}

// Writes each item's values at the chosen points; returns how many points were chosen.
std::size_t writeItems(const std::vector<FragmentSlot>& slots, std::vector<Item>& items,
                       const std::vector<std::vector<unsigned char>>& masks) {
  std::size_t chosen = 0;
  for (const auto& mask : masks)
    for (const unsigned char m : mask)
      chosen += m;
  for (Item& item : items)
    Tressel::withScalar(item.target->getElementType()->scalar(), [&](auto zero) {
      using T = decltype(zero);
      for (std::size_t k = 0; k < slots.size(); ++k) {
        FragmentOutput<T> out(item.target, slots[k].id, masks[k].size());
        for (std::size_t i = 0; i < masks[k].size(); ++i)
          if (masks[k][i])
            out[i] = static_cast<T>(item.values[k][i]);
        out.commit();
      }
      return 0;
    });
  return chosen;
}

} // namespace

std::string assignFields(const StrongPtr<Grid>& grid, FieldAssignmentParameterBox& box) {
  Messages log("FieldAssignment: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return box.message;
  try {
    const Expression where = box.where.empty() ? Expression() : Expression(box.where);
    if (!where.error().empty())
      throw std::runtime_error("where " + where.problemWith(nullptr));
    const auto created = fieldsToCreate(grid, box.create);
    auto items = itemsToSet(box.set);
    if (items.empty())
      throw std::runtime_error("nothing to set: give FIELD=VALUE items");
    createFields(grid, created);
    if (const std::string problem = where.empty() ? "" : where.problemWith(grid); !problem.empty())
      throw std::runtime_error("where " + problem);
    for (const Item& item : items)
      if (const std::string problem = item.value.problemWith(grid); !problem.empty())
        throw std::runtime_error("set " + item.field + ": " + problem);
    findTargets(grid, items);
    const auto slots = fragmentsOf(*positions);
    std::vector<std::vector<unsigned char>> masks;
    evaluateItems(grid, where, slots, items, masks);
    const std::size_t chosen = writeItems(slots, items, masks);
    const std::string report = "assigned " + std::to_string(items.size()) + " fields at " +
                               std::to_string(chosen) + " points";
    log.note(report);
    return report;
  } catch (const std::exception& e) {
    log.report(std::string("ERROR: ") + e.what());
  }
  return box.message;
}

} // namespace Quorvel
