// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the checks of parameter values that every host runs before an algorithm, kept as one
// table so that the command-line host and the Python package refuse the same values with the same
// words. A parameter box (or the arguments of a function without one) lists its checked fields;
// each field has one rule.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvel::Checks {

enum class Rule {
  PositiveNumber, // a finite number above 0
  NumberWithin,   // a finite number in [low, high]
  WholeWithin,    // a whole number in [low, high]
  OneOf,          // one of the texts of `choices`, separated by '|'
  RangeText,      // a value range: items a or a:b of finite numbers, separated by ',' or ';'
  BandsText,      // a distance/class text: items d or d=c, d finite and not negative, c whole
};

struct FieldCheck {
  std::string_view field;
  Rule rule;
  double low = 0.0;
  double high = 0.0;
  std::string_view choices = {};
  // NaN stands for "not set" and passes (a box whose default is NaN).
  bool nanUnset = false;
};

struct BoxChecks {
  // A parameter box's type name, or the name of a function for its own arguments.
  std::string_view box;
  std::vector<FieldCheck> fields;
};

// Every box with checked fields.
const std::vector<BoxChecks>& table();
// The checks of a box, or nullptr when it has none.
const BoxChecks* checksOf(std::string_view box);
// The check of one field, or nullptr.
const FieldCheck* checkOf(std::string_view box, std::string_view field);

// The problem of a value given as text (an option's text, a range text), without the field's
// name: "\"-1\" is not a positive finite number". Nothing when the value passes.
std::optional<std::string> problem(const FieldCheck& check, std::string_view text);
// The same for a number (a box field already converted); it is quoted as %g writes it.
std::optional<std::string> problem(const FieldCheck& check, double value);
// The problem naming the field: "\"step\": \"-1\" is not a positive finite number".
std::string named(std::string_view field, const std::string& problem);

// The number a whole text spells (blanks around it allowed), when it is finite.
std::optional<double> finiteNumber(std::string_view text);
// The problem of a value range text or of a distance/class text, as problem() words it.
std::optional<std::string> rangeProblem(std::string_view text);
std::optional<std::string> bandsProblem(std::string_view text);

} // namespace Quorvel::Checks
