// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the one description of a parameter box's fields. A box lists its fields once, in
// order, in `static constexpr auto fields()` (defined after the struct, so that the struct's body
// holds only its fields): the member's name (the Python keyword and the checks table's name), the
// member, its unit, its meaning, the label print() writes and, for a plain value, the
// command-line option with its help. print(), the command-line options and the Python classes
// are all made from that list, so a field added to a box reaches every host.
#pragma once

#include "basalt/console.hpp"
#include "vantor/multi_range.hpp"

#include <ostream>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace Quorvel {

template <class Box, class T>
struct FieldDescription {
  using Value = T;

  // The member's name: the Python keyword and the checks table's field name.
  std::string_view name;
  T Box::*member;
  // The unit of the value ("m", "points"); empty for a count, a switch or a text.
  std::string_view unit;
  // The label print() writes before the value, with its ": "; empty: the field is not printed.
  std::string_view label;
  // The meaning, as the Python class's docstring lists it.
  std::string_view help;
  // The command-line option ("--step") and its help; empty where the option is bound by hand
  // (choices, lists, ranges whose text is parsed in a way of their own) or there is none.
  std::string_view cliOption = {};
  std::string_view cliHelp = {};
  // A value print() writes in a form of its own (corners, bands); null: printField.
  void (*printer)(std::string_view label, const T& value) = nullptr;

  constexpr FieldDescription option(std::string_view name, std::string_view text) const {
    FieldDescription copy = *this;
    copy.cliOption = name;
    copy.cliHelp = text;
    return copy;
  }
  constexpr FieldDescription printedBy(void (*print)(std::string_view, const T&)) const {
    FieldDescription copy = *this;
    copy.printer = print;
    return copy;
  }
};

// One field of a description: field(&Box::step, "step", "m²", "step: ", "scale increment").
template <class Box, class T>
constexpr FieldDescription<Box, T> field(T Box::*member, std::string_view name,
                                         std::string_view unit, std::string_view label,
                                         std::string_view help) {
  return {name, member, unit, label, help};
}

// A box's description: its type name (the checks table's and the Python class's) and its fields.
template <class... Fields>
struct BoxDescription {
  std::string_view name;
  std::tuple<Fields...> fields;
};

template <class... Fields>
constexpr BoxDescription<Fields...> describeBox(std::string_view name, Fields... fields) {
  return {name, {fields...}};
}

// Calls f with every field description of Box, in order.
template <class Box, class F>
constexpr void forEachField(F&& f) {
  std::apply([&](const auto&... described) { (f(described), ...); }, Box::fields().fields);
}

// One line of a box's print(): the label, as written (with its ": "), and the value; booleans
// print as the digit 0 or 1, ranges in their text form, numbers in the console's format.
template <class T>
void printField(std::string_view label, const T& value) {
  Basalt::Console() << label << value;
}
void printField(std::string_view label, const Vantor::MultiRange<double>& range);

// A value printField writes as it is; others need a printer in their description.
template <class T>
concept Printable = std::is_same_v<T, Vantor::MultiRange<double>> ||
    requires(std::ostream& os, const T& value) {
  os << value;
};

// One line of print() for a described field; nothing for a field without a label.
template <class Box, class Described>
void printDescribed(const Box& box, const Described& described) {
  if (described.label.empty())
    return;
  if (described.printer)
    described.printer(described.label, box.*described.member);
  else if constexpr (Printable<typename Described::Value>)
    printField(described.label, box.*described.member);
}

// Whether a description is the one of that member.
template <class Described, class Box, class T>
constexpr bool describes(const Described& described, T Box::*member) {
  if constexpr (std::is_same_v<typename Described::Value, T>)
    return described.member == member;
  else
    return false;
}

// The lines of a box's print(): every described field with a label, in order; the fields given
// as `first` (members) come before the others, in the order given.
template <class Box, class... First>
void printFields(const Box& box, First Box::*... first) {
  (forEachField<Box>([&](const auto& described) {
     if (describes(described, first))
       printDescribed(box, described);
   }),
   ...);
  forEachField<Box>([&](const auto& described) {
    if (!(describes(described, first) || ...))
      printDescribed(box, described);
  });
}

} // namespace Quorvel
