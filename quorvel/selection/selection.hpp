// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: selection of points by the value of one field in value ranges. The field's arrays may
// hold any of fourteen element types, known only at run time: typed members (one per type) are
// offered each array in a fixed order by a type-list walker, and only the member of the array's
// real type does the work. On top of them: selection grids (the selected points with all their
// fields) and tables (the selected points' values as rows).
#pragma once

#include "basalt/strong_ptr.hpp"
#include "quorvel/core/fields.hpp"
#include "quorvel/core/kept.hpp"
#include "tressel/grid.hpp"
#include "tressel/mem_array.hpp"
#include "vantor/multi_range.hpp"
#include "vantor/physical_space.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace META {

// A list of types.
template <class... T>
struct LIST {};

// Offers a context to F::exec<Head>::Break, then to the members of the types of Tail in order,
// stopping at the first member that returns true. exec returns false after such a stop and true
// when the walk ran through.
template <class F, class Head, class Tail>
struct FOREACH;

template <class F, class Head>
struct FOREACH<F, Head, LIST<>> {
  template <class Context>
  static bool exec(Context& context) {
    return !F::template exec<Head>::Break(context);
  }
};

template <class F, class Head, class Next, class... Rest>
struct FOREACH<F, Head, LIST<Next, Rest...>> {
  template <class Context>
  static bool exec(Context& context) {
    if (F::template exec<Head>::Break(context))
      return false;
    return FOREACH<F, Next, LIST<Rest...>>::exec(context);
  }
};

} // namespace META

namespace Quorvel {

// Settings of a selection and its result text.
struct SelectionParameterBox {
  // The field whose values decide.
  std::string fieldname = "Classification";
  // The value ranges ("2:5,9"); tested with a tolerance of 1e-9. Empty: nothing is inside.
  Vantor::MultiRange<double> selection;
  // An expression over the fields (docs/expressions.md), e.g. "Classification == 2 && Z > 300";
  // empty: none. With ranges as well, a point must satisfy both; without ranges it alone decides.
  std::string where;
  // Select the points that the ranges and the expression leave out instead.
  bool inverse = false;
  // Component (0, 1 or 2) that decides for three-component elements (points and vectors): z by
  // default, heights being what is most often selected by.
  int coordinate = 2;
  // Fields whose values array2D puts into its columns after x, y and z, in this order; empty: every
  // per-point field with numeric elements but the positions, in the representation's order.
  std::vector<std::string> columns;
  // Column names of the last array2D, in column order.
  std::vector<std::string> columnNames;
  // Messages of the run.
  std::string message;

  // "fieldname: ", "selection: ", "where: ", "inverse: ", "coordinate: " lines.
  void print() const;
  static constexpr auto fields();
};

constexpr auto SelectionParameterBox::fields() {
  using B = SelectionParameterBox;
  return describeBox(
      "SelectionParameterBox",
      field(&B::fieldname, "fieldname", "", "fieldname: ", "the field whose values decide")
          .option("--field", "the field whose values decide (quorvel info lists a file's fields)"),
      field(&B::selection, "selection", "field units", "selection: ",
            "value ranges in the field's unit (classes, metres), e.g. \"2:5,9\"; empty: none")
          .option("--range", "value ranges in the field's units, e.g. 2:5,9 (2 to 5, and 9)"),
      // --where is an expression, checked as it is read: bound by hand.
      field(&B::where, "where", "", "where: ",
            "an expression that must hold (docs/expressions.md), e.g. \"Classification == 2 "
            "&& Z > 300\"; with ranges too, both must hold; empty: none"),
      field(&B::inverse, "inverse", "",
            "inverse: ", "select the points that the ranges and where leave out")
          .option("--inverse", "select the points that --range and --where leave out instead"),
      field(&B::coordinate, "coordinate", "",
            "coordinate: ", "component (0, 1 or 2) that decides for points and vectors; 2: z")
          .option("--coordinate", "component of points and vectors: 0 x, 1 y, 2 z"),
      field(&B::columns, "columns", "", "",
            "fields of array2D's columns after x, y, z; empty: all"),
      field(&B::columnNames, "columnNames", "", "", "column names of the last array2D"),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// One node of a parsed expression, in the flat tree of an Expression.
struct ExpressionNode {
  enum class Op {
    Number,
    Field,
    Negate,
    Not,
    Add,
    Subtract,
    Multiply,
    Divide,
    Equal,
    NotEqual,
    Less,
    LessEqual,
    Greater,
    GreaterEqual,
    And,
    Or,
    In
  };
  Op op = Op::Number;
  double number = 0.0;       // Number
  std::string field;         // Field: its name; X, Y and Z are the positions' components
  std::vector<double> list;  // In: the values listed
  int left = -1, right = -1; // operands (indices of nodes); unary operators use left
};

// An expression over a cloud's fields (grammar: docs/expressions.md), parsed once and evaluated
// over whole fragments in double precision, block by block, one node at a time over every point
// of the block (no interpreter step per point). A value is true when it is neither 0 nor NaN;
// comparisons, "in", "&&", "||" and "!" give 1 or 0. Evaluation only reads the grid, so one
// expression may be evaluated from several threads.
class Expression {
public:
  Expression() = default;
  // Parses text; a text that does not parse leaves error() set (and nothing to evaluate).
  explicit Expression(std::string text);

  const std::string& text() const { return text_; }
  bool empty() const { return nodes_.empty(); }
  // "column C: what was expected and what came" for a syntax error; empty when parsed.
  const std::string& error() const { return error_; }
  // The 1-based column of the syntax error; 0 when parsed.
  std::size_t errorColumn() const { return errorColumn_; }
  // The names of the fields read, each once, X, Y and Z included.
  std::vector<std::string> fields() const;
  // Why grid cannot be evaluated: a field it lacks (named, with the fields it has) or one whose
  // elements are not single numbers; empty when it can.
  std::string problemWith(const Basalt::StrongPtr<Tressel::Grid>& grid) const;
  // The value of every point of the fragment id of grid's positions, in file order; false when
  // a field holds no array of the positions' length for the fragment.
  bool values(const Basalt::StrongPtr<Tressel::Grid>& grid, const Tressel::FragmentID& id,
              std::vector<double>& out) const;
  // Whether the value of every point of the fragment is true (1) or not (0); false as values.
  bool mask(const Basalt::StrongPtr<Tressel::Grid>& grid, const Tressel::FragmentID& id,
            std::vector<unsigned char>& out) const;

private:
  template <class Sink>
  bool evaluate(const Basalt::StrongPtr<Tressel::Grid>& grid, const Tressel::FragmentID& id,
                Sink&& sink) const;

  std::string text_;
  std::vector<ExpressionNode> nodes_; // the root last
  std::string error_;
  std::size_t errorColumn_ = 0;
};

// The element types in the order both families offer an array to their members.
using SelectionTypes =
    META::LIST<float, double, long double, unsigned char, unsigned short, unsigned int,
               unsigned long long, signed char, short, int, long long, Vantor::PhysicalSpace::point,
               Vantor::PhysicalSpace::vector, Vantor::PhysicalSpace::bivector>;

// The value of one element that a selection tests: a number as double, a component of a
// three-component element.
template <class T>
double selectionValue(const T& element, int coordinate) {
  if constexpr (std::is_arithmetic_v<T>)
    return static_cast<double>(element);
  else
    return element[coordinate];
}

// Whether a value lies in the box's ranges (with 1e-9 tolerance) differs from inverse. Built once
// per array: the bounds with their tolerance are kept, so an element costs a few comparisons.
class SelectionRule {
public:
  explicit SelectionRule(const SelectionParameterBox& box);
  bool selected(double v) const {
    bool inside = false;
    if (v >= low_ && v <= high_)
      for (const auto& [a, b] : intervals_)
        if (a <= v && v <= b) {
          inside = true;
          break;
        }
    return inside != inverse_;
  }

  // Writes the indices of the selected elements of n values (every stride-th element from
  // values) to `to` (room for n), ascending; returns their count. For up to four intervals that
  // the overall bounds cannot narrow (ranges as parsed), every interval is tested without a
  // branch and every index written, kept when selected: random data then costs no mispredicted
  // branches.
  template <class T>
  std::size_t compact(const T* values, std::size_t n, std::ptrdiff_t stride, int coordinate,
                      std::uint32_t* to) const {
    switch (boundsMatter_ ? 0 : intervals_.size()) {
    case 1:
      return compactOver<1>(values, n, stride, coordinate, to);
    case 2:
      return compactOver<2>(values, n, stride, coordinate, to);
    case 3:
      return compactOver<3>(values, n, stride, coordinate, to);
    case 4:
      return compactOver<4>(values, n, stride, coordinate, to);
    default:
      break;
    }
    std::size_t count = 0;
    for (std::size_t i = 0; i < n; ++i) {
      to[count] = static_cast<std::uint32_t>(i);
      count +=
          selected(selectionValue(values[static_cast<std::ptrdiff_t>(i) * stride], coordinate));
    }
    return count;
  }

private:
  // Contiguous numbers, in blocks: a mask of bytes in a loop the compiler vectorizes (floats
  // compared with the bounds rounded outward to float, which decides exactly as the comparison
  // in double), then the indices of the mask's ones, eight bytes at a time. Other elements: every
  // index is written and kept when selected, so that random data costs no mispredicted branches.
  template <int K, class T>
  std::size_t compactOver(const T* values, std::size_t n, std::ptrdiff_t stride, int coordinate,
                          std::uint32_t* to) const {
    using Compared = std::conditional_t<std::is_same_v<T, float>, float, double>;
    Compared a[K], b[K];
    for (int k = 0; k < K; ++k) {
      a[k] = roundedUp<Compared>(intervals_[static_cast<std::size_t>(k)].first);
      b[k] = roundedDown<Compared>(intervals_[static_cast<std::size_t>(k)].second);
    }
    const bool flip = inverse_;
    const auto test = [&](Compared v) {
      bool inside = false;
      for (int k = 0; k < K; ++k)
        inside |= (a[k] <= v) & (v <= b[k]);
      return inside != flip;
    };
    std::size_t count = 0;
    if (stride != 1 || !std::is_arithmetic_v<T>) {
      for (std::size_t i = 0; i < n; ++i) {
        to[count] = static_cast<std::uint32_t>(i);
        count += test(static_cast<Compared>(
            selectionValue(values[static_cast<std::ptrdiff_t>(i) * stride], coordinate)));
      }
      return count;
    }
    constexpr std::size_t Block = 4096;
    alignas(8) unsigned char mask[Block];
    for (std::size_t begin = 0; begin < n; begin += Block) {
      const std::size_t size = std::min(Block, n - begin);
      for (std::size_t i = 0; i < size; ++i)
        mask[i] = test(static_cast<Compared>(selectionValue(values[begin + i], coordinate)));
      std::size_t i = 0;
      for (; i + 8 <= size; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, mask + i, 8);
        for (; word != 0; word &= word - 1)
          to[count++] = static_cast<std::uint32_t>(begin + i + (std::countr_zero(word) >> 3));
      }
      for (; i < size; ++i)
        if (mask[i])
          to[count++] = static_cast<std::uint32_t>(begin + i);
    }
    return count;
  }
  // The nearest value of type C at or above (roundedUp) or at or below (roundedDown) x; beyond
  // C's finite range the infinity or the largest finite value on that side.
  template <class C>
  static C roundedUp(double x) {
    constexpr C top = std::numeric_limits<C>::max();
    if (x > top)
      return std::numeric_limits<C>::infinity();
    if (x < -static_cast<double>(top))
      return -top;
    const C c = static_cast<C>(x);
    return static_cast<double>(c) < x ? std::nextafter(c, std::numeric_limits<C>::infinity()) : c;
  }
  template <class C>
  static C roundedDown(double x) {
    return -roundedUp<C>(-x);
  }

  std::vector<std::pair<double, double>> intervals_;
  double low_, high_;
  bool inverse_;
  bool boundsMatter_ = false; // the overall bounds exclude values that no interval does
};

// Whether any element of a view (contiguous or strided) is selected; stops at the first.
template <class T>
bool anySelected(const Tressel::MultiArray<1, const T>& values, const SelectionParameterBox& box) {
  const SelectionRule rule(box);
  for (std::size_t i = 0; i < values.size(); ++i)
    if (rule.selected(selectionValue(values[i], box.coordinate)))
      return true;
  return false;
}

// Appends the indices of the selected elements of a view (ascending). Block by block through
// a small buffer, so that no array of the view's length is allocated and zero-filled.
template <class T>
void appendSelected(const Tressel::MultiArray<1, const T>& values, const SelectionParameterBox& box,
                    std::vector<std::uint32_t>& out) {
  const SelectionRule rule(box);
  constexpr std::size_t Block = 4096;
  std::uint32_t room[Block];
  const std::size_t n = values.size();
  out.reserve(out.size() + n); // room only: the pages that stay unused are never touched
  for (std::size_t begin = 0; begin < n; begin += Block) {
    const std::size_t size = std::min(Block, n - begin);
    const std::size_t count =
        rule.compact(&values[begin], size, values.stride(0), box.coordinate, room);
    const std::size_t at = out.size();
    out.resize(at + count);
    for (std::size_t j = 0; j < count; ++j)
      out[at + j] = static_cast<std::uint32_t>(begin + room[j]);
  }
}

// Whether a fragment array holds at least one selected element.
struct SelectionTesting {
  struct Context {
    Basalt::StrongPtr<Tressel::MemBase> data;
    const SelectionParameterBox& box;
    bool& found;
  };
  template <class T>
  struct exec {
    // Sets found when data is a rank-1 array of T with a selected element; always false, so a
    // walk offers the array to every member.
    static bool Break(Context& c) {
      const auto array = Tressel::arrayCast<1, T>(c.data);
      if (array && array->size() > 0 && anySelected<T>(std::as_const(*array).view(), c.box))
        c.found = true;
      return false;
    }
  };
};

// The indices of the selected elements of a fragment array.
struct SelectionSelectOverTypes {
  struct Context {
    Basalt::StrongPtr<Tressel::MemBase> data;
    std::vector<std::uint32_t>& indices;
    const SelectionParameterBox& box;
  };
  template <class T>
  struct exec {
    // Appends the indices when data is a rank-1 array of T; always false.
    static bool Break(Context& c) {
      const auto array = Tressel::arrayCast<1, T>(c.data);
      if (array && array->size() > 0)
        appendSelected<T>(std::as_const(*array).view(), c.box, c.indices);
      return false;
    }
  };
};

// Whether data holds a selected element: float, double, extended precision and the unsigned 8-,
// 16- and 32-bit members first, then the walker over the rest.
bool selectionTest(const Basalt::StrongPtr<Tressel::MemBase>& data,
                   const SelectionParameterBox& box);

// The indices of the selected elements of data, ascending; none for an element type outside
// the list.
std::vector<std::uint32_t> selectedIndices(const Basalt::StrongPtr<Tressel::MemBase>& data,
                                           const SelectionParameterBox& box);

// A new point cloud of the selected points of grid ("StandardCartesianChart3D"), with every
// per-point field, in input order, one fragment per fragment with a selected point, each with its
// bounding box; grid is not changed. Nothing selected: an empty cloud, no error. Empty, with the
// reason in box.message (printed after "Selection: "), when grid has no positions, no field
// box.fieldname, or the ranges are empty and not inverted.
Basalt::StrongPtr<Tressel::Grid> computeSelection(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                                  SelectionParameterBox& box);
// The points computeSelection() keeps, before anything is copied; empty with the reason as
// computeSelection() gives it.
std::optional<KeptPoints> keptBySelection(const Basalt::StrongPtr<Tressel::Grid>& grid,
                                          SelectionParameterBox& box);

// The selected points as one table of doubles: one row per selected point (in input order), one
// column per component: x, y, z, then the fields of box.columns (a three-component field gives
// three columns named <field>[0], <field>[1], <field>[2]; RGB and other non-numeric elements are
// refused). Extents are (columns, rows) with the first index fastest, so the buffer is row-major
// rows x columns as numpy reads it. Column names go to box.columnNames. Empty on the errors of
// computeSelection or a column field that is missing or not numeric.
Basalt::StrongPtr<Tressel::MemArray<2, double>>
array2D(const Basalt::StrongPtr<Tressel::Grid>& grid, SelectionParameterBox& box);

// Settings of an assignment: values given to fields where an expression holds.
struct FieldAssignmentParameterBox {
  // Which points change: an expression (docs/expressions.md); empty: every point.
  std::string where;
  // FIELD=VALUE items; VALUE is a number or an expression, and every value and the condition
  // are evaluated on the values before the assignment, so the items do not see each other.
  std::vector<std::string> set;
  // FIELD:TYPE items (TYPE int8, uint8, ..., uint64, float32 or float64): fields made before the
  // assignment, 0 at every point; a field of that type that exists already is kept.
  std::vector<std::string> create;
  // Messages of the run.
  std::string message;

  // "where: ", "set: ", "create: " lines.
  void print() const;
  static constexpr auto fields();
  // Items as print() writes them: on one line, separated by blanks.
  static void printItems(std::string_view label, const std::vector<std::string>& items);
};

// The command line binds these by hand: --where is an expression checked as it is read, --set
// and --create are repeatable options with checks of their own.
constexpr auto FieldAssignmentParameterBox::fields() {
  using B = FieldAssignmentParameterBox;
  return describeBox(
      "FieldAssignmentParameterBox",
      field(&B::where, "where", "", "where: ",
            "the points that change: an expression (docs/expressions.md); empty: every point"),
      field(&B::set, "set", "", "set: ",
            "FIELD=VALUE items, VALUE a number or an expression, all evaluated before any is set")
          .printedBy(&B::printItems),
      field(&B::create, "create", "", "create: ",
            "FIELD:TYPE items (uint8, int32, float32, ...): fields made first, 0 everywhere")
          .printedBy(&B::printItems),
      field(&B::message, "message", "", "", "messages of the last run"));
}

// Gives the box's fields their values at the points where box.where holds, in every fragment.
// A value that the field's element type cannot hold (a fraction or a number beyond the range of
// an integer type, a finite number beyond float32) changes nothing and is reported naming the
// field and the value; so are an unknown field, an expression that does not parse, a field of
// several components and the positions: then the reason is in box.message after "ERROR: " and
// is returned, and no existing field has changed (fields made on request stay, 0). Returns
// "assigned F fields at P points" on success.
std::string assignFields(const Basalt::StrongPtr<Tressel::Grid>& grid,
                         FieldAssignmentParameterBox& box);

} // namespace Quorvel
