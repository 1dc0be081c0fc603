// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: typed selection walks, selection grids and selection tables.
#include "quorvel/selection/selection.hpp"

#include "quorvel/core/core.hpp"

#include <cstring>
#include <limits>

namespace Quorvel {

using Vantor::PhysicalSpace::bivector;
using Vantor::PhysicalSpace::vector;

void SelectionParameterBox::print() const {
  printFields(*this);
}

SelectionRule::SelectionRule(const SelectionParameterBox& box)
    : low_(std::numeric_limits<double>::infinity()),
      high_(-std::numeric_limits<double>::infinity()), inverse_(box.inverse) {
  const auto& range = box.selection;
  if (range.empty())
    return;
  low_ = range.minimum - RangeTolerance;
  high_ = range.maximum + RangeTolerance;
  for (const auto& [a, b] : range.intervals) {
    intervals_.emplace_back(a - RangeTolerance, b + RangeTolerance);
    boundsMatter_ =
        boundsMatter_ || !(low_ <= intervals_.back().first) || !(intervals_.back().second <= high_);
  }
}

bool selectionTest(const StrongPtr<Tressel::MemBase>& data, const SelectionParameterBox& box) {
  bool found = false;
  SelectionTesting::Context context{data, box, found};
  // The common element types first, by hand; the walker offers the rest.
  if (!SelectionTesting::exec<float>::Break(context) &&
      !SelectionTesting::exec<double>::Break(context) &&
      !SelectionTesting::exec<long double>::Break(context) &&
      !SelectionTesting::exec<unsigned char>::Break(context) &&
      !SelectionTesting::exec<unsigned short>::Break(context) &&
      !SelectionTesting::exec<unsigned int>::Break(context))
    META::FOREACH<
        SelectionTesting, unsigned long long,
        META::LIST<signed char, short, int, long long, point, vector, bivector>>::exec(context);
  return found;
}

namespace {

template <class Head, class... Tail>
bool walkAll(SelectionSelectOverTypes::Context& context, META::LIST<Head, Tail...>) {
  return META::FOREACH<SelectionSelectOverTypes, Head, META::LIST<Tail...>>::exec(context);
}

} // namespace

std::vector<std::uint32_t> selectedIndices(const StrongPtr<Tressel::MemBase>& data,
                                           const SelectionParameterBox& box) {
  std::vector<std::uint32_t> indices;
  SelectionSelectOverTypes::Context context{data, indices, box};
  walkAll(context, SelectionTypes{});
  return indices;
}

namespace {

// The points of one fragment that the ranges (when given) and the expression (when given) both
// select, the others with box.inverse; false when an array is missing.
bool selectInFragment(const StrongPtr<Grid>& grid, const SelectionParameterBox& box,
                      const StrongPtr<Field>& field, const Expression& where,
                      const FragmentSlot& slot, std::size_t n, std::vector<std::size_t>& points) {
  std::vector<unsigned char> keep(n, 1);
  if (field) {
    SelectionParameterBox inside = box;
    inside.inverse = false;
    const auto data = field->getData(*slot.id);
    if (!data || data->nElements() != n)
      return true; // nothing selected where the field holds no values, as ranges alone do
    std::fill(keep.begin(), keep.end(), 0);
    for (const std::uint32_t i : selectedIndices(data, inside))
      keep[i] = 1;
  }
  if (!where.empty()) {
    std::vector<unsigned char> holds;
    if (!where.mask(grid, *slot.id, holds))
      return false;
    for (std::size_t i = 0; i < n; ++i)
      keep[i] &= holds[i];
  }
  for (std::size_t i = 0; i < n; ++i)
    if (keep[i] != static_cast<unsigned char>(box.inverse))
      points.push_back(i);
  return true;
}

// The selected points of every fragment of the positions, by the selection field's arrays and
// the expression; false (reported) when an input is missing.
bool selectPoints(const StrongPtr<Grid>& grid, SelectionParameterBox& box,
                  std::vector<FragmentSlot>& slots, std::vector<std::vector<std::size_t>>& chosen) {
  Messages log("Selection: ", &box.message);
  const auto positions = findPositions(grid, log, "ERROR: no f_vertices");
  if (!positions)
    return false;
  const Expression where(box.where);
  if (box.selection.empty() && box.where.empty() && !box.inverse) {
    log.report("ERROR: empty selection range");
    return false;
  }
  if (const std::string problem = box.where.empty() ? "" : where.problemWith(grid);
      !problem.empty()) {
    log.report("ERROR: " + problem);
    return false;
  }
  StrongPtr<Field> field;
  if (!box.selection.empty() || box.where.empty()) {
    field = findField(grid, box.fieldname, log, "ERROR: no f_" + box.fieldname);
    if (!field)
      return false;
  }
  slots = fragmentsOf(*positions);
  for (const FragmentSlot& slot : slots) {
    const auto xyz = fragmentArray<point>(*positions, slot);
    std::vector<std::size_t> points;
    if (xyz && !selectInFragment(grid, box, field, where, slot, xyz->size(), points)) {
      log.report("ERROR: a field holds no values for a fragment");
      return false;
    }
    chosen.push_back(std::move(points));
  }
  return true;
}

} // namespace

std::optional<KeptPoints> keptBySelection(const StrongPtr<Grid>& grid, SelectionParameterBox& box) {
  KeptPoints kept;
  if (!selectPoints(grid, box, kept.slots, kept.indices))
    return std::nullopt;
  return kept;
}

StrongPtr<Grid> computeSelection(const StrongPtr<Grid>& grid, SelectionParameterBox& box) {
  auto kept = keptBySelection(grid, box);
  Messages log("Selection: ", &box.message);
  return keptCloud(*grid, kept, log);
}

namespace {

// One column of a selection table: a component of a field's elements.
struct Column {
  StrongPtr<Field> field;
  std::string name;
  Tressel::ScalarKind kind;
  std::size_t elementSize;
  std::size_t offset; // of the component in the element, in bytes
};

// The columns of a field: one per component; none for elements of no plain scalar.
std::vector<Column> columnsOf(const StrongPtr<Field>& field, const std::string& name) {
  const auto* type = field ? field->getElementType() : nullptr;
  if (!type || type->scalar() == Tressel::ScalarKind::Opaque)
    return {};
  std::vector<Column> out;
  const std::size_t size = Tressel::scalarSize(type->scalar());
  for (int c = 0; c < type->components(); ++c)
    out.push_back({field, type->components() == 1 ? name : name + "[" + std::to_string(c) + "]",
                   type->scalar(), type->size(), static_cast<std::size_t>(c) * size});
  return out;
}

// x, y, z, then the box's fields (or every numeric per-point field); false (reported) for a
// named field that is missing or not numeric.
bool tableColumns(const StrongPtr<Grid>& grid, SelectionParameterBox& box,
                  std::vector<Column>& columns) {
  Messages log("Selection: ", &box.message);
  const auto positions = grid->CartesianPositions();
  columns = columnsOf(positions, "");
  const char* axes[] = {"x", "y", "z"};
  for (int a = 0; a < 3; ++a)
    columns[static_cast<std::size_t>(a)].name = axes[a];
  if (box.columns.empty()) {
    const auto rep = grid->getCartesianRepresentation(Tressel::StandardCartesianChart3D);
    for (const auto& [id, field] : rep->snapshot())
      if (field && id->Name() != Tressel::PositionsFieldName)
        for (Column& c : columnsOf(field, id->Name()))
          columns.push_back(std::move(c));
    return true;
  }
  for (const std::string& name : box.columns) {
    auto more = columnsOf(findOptionalField(grid, name), name);
    if (more.empty()) {
      log.report("ERROR: no numeric f_" + name);
      return false;
    }
    for (Column& c : more)
      columns.push_back(std::move(c));
  }
  return true;
}

} // namespace

StrongPtr<MemArray<2, double>> array2D(const StrongPtr<Grid>& grid, SelectionParameterBox& box) {
  std::vector<FragmentSlot> slots;
  std::vector<std::vector<std::size_t>> chosen;
  std::vector<Column> columns;
  if (!selectPoints(grid, box, slots, chosen) || !tableColumns(grid, box, columns))
    return nullptr;
  std::size_t rows = 0;
  for (const auto& points : chosen)
    rows += points.size();
  const std::size_t width = columns.size();
  auto table = std::make_shared<MemArray<2, double>>(Tressel::MultiIndex<2>(width, rows));
  double* out = table->data();
  box.columnNames.clear();
  for (std::size_t c = 0; c < width; ++c) {
    const Column& column = columns[c];
    box.columnNames.push_back(column.name);
    std::size_t row = 0;
    for (std::size_t k = 0; k < slots.size(); ++k) {
      const auto data = column.field->getData(*slots[k].id);
      const auto xyz = slots[k].creator ? slots[k].creator->peekData() : nullptr;
      if (!data || !xyz || data->nElements() != xyz->nElements() ||
          &data->elementType() != column.field->getElementType()) {
        Messages("Selection: ", &box.message).report("ERROR: no m_" + column.name);
        return nullptr;
      }
      const auto* bytes = static_cast<const std::uint8_t*>(data->elementBytes());
      Tressel::withScalar(column.kind, [&](auto zero) {
        using Scalar = decltype(zero);
        for (const std::size_t i : chosen[k]) {
          Scalar v;
          std::memcpy(&v, bytes + i * column.elementSize + column.offset, sizeof v);
          out[(row++) * width + c] = static_cast<double>(v);
        }
        return 0;
      });
    }
  }
  return table;
}

} // namespace Quorvel
