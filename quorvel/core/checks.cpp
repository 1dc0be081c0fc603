// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the checks of parameter values.
#include "quorvel/core/checks.hpp"

#include "basalt/text.hpp"
#include "vantor/multi_range.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace Quorvel::Checks {

namespace {

constexpr double Largest = std::numeric_limits<double>::max();

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos)
    return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

// The text in double quotes (built by appending: GCC 12 warns falsely on "\"" + string).
std::string inQuotes(std::string_view text) {
  std::string out(1, '"');
  out.append(text);
  out += '"';
  return out;
}

// The item, quoted, and the whole text when that holds more.
std::string quoted(std::string_view item, std::string_view text) {
  const std::string t = trimmed(item);
  return inQuotes(t) + (t == trimmed(text) ? "" : " in " + inQuotes(text));
}

std::optional<long long> wholeNumber(std::string_view text) {
  const std::string t = trimmed(text);
  if (t.empty())
    return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(t.c_str(), &end, 10);
  if (*end != '\0' || errno != 0)
    return std::nullopt;
  return value;
}

std::string choicesList(std::string_view choices) {
  std::string out;
  for (std::string_view choice : Basalt::splitAt(choices, "|"))
    out += (out.empty() ? "" : ", ") + std::string(choice);
  return out;
}

bool isChoice(std::string_view choices, const std::string& text) {
  const auto all = Basalt::splitAt(choices, "|");
  return std::find(all.begin(), all.end(), std::string_view(text)) != all.end();
}

// The words after the quoted value when a number or its text breaks the rule.
std::string expected(const FieldCheck& check) {
  switch (check.rule) {
  case Rule::PositiveNumber:
    return "is not a positive finite number";
  case Rule::NumberWithin:
    return Basalt::format("is not a number from %g to %g", check.low, check.high);
  case Rule::WholeWithin:
    return Basalt::format("is not a whole number from %g to %g", check.low, check.high);
  case Rule::OneOf:
    return "is not one of " + choicesList(check.choices);
  default:
    return {};
  }
}

bool passes(const FieldCheck& check, double value) {
  switch (check.rule) {
  case Rule::PositiveNumber:
    return std::isfinite(value) && value > 0;
  case Rule::NumberWithin:
    return std::isfinite(value) && value >= check.low && value <= check.high;
  case Rule::WholeWithin:
    return std::isfinite(value) && value == std::floor(value) && value >= check.low &&
           value <= check.high;
  case Rule::OneOf:
    return isChoice(check.choices, Basalt::format("%g", value));
  default:
    return false;
  }
}

FieldCheck positive(std::string_view field) {
  return {field, Rule::PositiveNumber};
}
FieldCheck within(std::string_view field, double low, double high) {
  return {field, Rule::NumberWithin, low, high};
}
FieldCheck whole(std::string_view field, double low, double high) {
  return {field, Rule::WholeWithin, low, high};
}
FieldCheck oneOf(std::string_view field, std::string_view choices) {
  return {field, Rule::OneOf, 0, 0, choices};
}
FieldCheck range(std::string_view field) {
  return {field, Rule::RangeText};
}

} // namespace

const std::vector<BoxChecks>& table() {
  static const std::vector<BoxChecks> boxes{
      {"ShapeFactorComputationParameterBox",
       {positive("step"), whole("maxstep", 0, 1000), oneOf("dimension", "2|3"),
        within("intensity_threshold", 0, 65535)}},
      {"PointCloudReductionParameterBox", {positive("radius"), whole("neighbours", 1, 1000000)}},
      {"PointCloudSizeReductionParameterBox",
       {within("keep", 0, 1), {"threshold", Rule::NumberWithin, -Largest, Largest, {}, true}}},
      {"SelectionParameterBox", {range("selection"), oneOf("coordinate", "0|1|2")}},
      {"PlanarRegressionParameterBox",
       {range("range"), range("source"), range("additional"), range("working_range"),
        positive("radius"), within("quantile", 0, 100), oneOf("dimension", "2D|3D")}},
      {"ExtrapolationParameterBox",
       {oneOf("mode", "planarregression|threshold|classification|constant"),
        whole("extrapolation_class", 0, 255), range("source"), range("target"), positive("radius"),
        whole("maximum_iteration", 0, 1000000), oneOf("dimension", "2D|3D"), range("range"),
        within("quantile", 0, 100), within("threshold", 0, Largest)}},
      {"GroundFilterParameterBox",
       {oneOf("method", "smrf"), positive("cell_size"), positive("slope"), positive("window"),
        within("threshold", 0, Largest), within("scalar", 0, Largest), range("ignore")}},
      {"ClassificationTransferParameterBox",
       {positive("radius"), positive("maxradius"), oneOf("dimension", "2|3"), range("source"),
        range("target")}},
      // The distance/class text a transfer's box is built from.
      {"classificationTransfer", {{"text", Rule::BandsText}}},
      {"MapRasterOnPointCloudParameterBox", {range("constantclasses")}},
      {"ComputeNeighboursParameterBox", {positive("radius")}},
      {"relativeHeightAndBelows", {positive("squareHalfWidth"), range("classes")}},
      {"mapSourceToTarget", {positive("radius")}},
      {"GroundRasterParameterBox",
       {positive("cell_size"), range("classes"), oneOf("method", "lowest|tin|idw"),
        whole("fill_rings", 0, 1000), whole("fragment_cells", 1, 65536)}},
      {"SurfaceParameterBox",
       {positive("cell_size"), range("classes"), whole("fill_rings", 0, 1000),
        within("pit_depth", 0, Largest), whole("fragment_cells", 1, 65536)}},
      {"RenderParameterBox",
       {oneOf("view", "top|profile"), within("pixel", 0, Largest), whole("width", 0, 100000),
        whole("height", 0, 100000), range("classes"), positive("corridor")}},
      {"OutlierParameterBox",
       {oneOf("method", "statistical|radius"), whole("neighbours", 1, 1000),
        within("multiplier", 0, Largest), positive("radius"), whole("minPoints", 0, 1000000),
        whole("classify", 0, 255)}},
      {"ThinParameterBox",
       {oneOf("mode", "voxel|random|every"), positive("voxel"),
        oneOf("keep", "first|lowest|highest|centre"), within("fraction", 0, 1),
        whole("every", 1, 9e18)}},
  };
  return boxes;
}

const BoxChecks* checksOf(std::string_view box) {
  for (const BoxChecks& checks : table())
    if (checks.box == box)
      return &checks;
  return nullptr;
}

const FieldCheck* checkOf(std::string_view box, std::string_view field) {
  if (const BoxChecks* checks = checksOf(box))
    for (const FieldCheck& check : checks->fields)
      if (check.field == field)
        return &check;
  return nullptr;
}

// from_chars: the same digits read the same under every locale.
std::optional<double> finiteNumber(std::string_view text) {
  std::string t = trimmed(text);
  if (t.size() > 1 && t[0] == '+' && t[1] != '-')
    t.erase(0, 1);
  double value = 0.0;
  const auto [end, error] = std::from_chars(t.data(), t.data() + t.size(), value);
  if (t.empty() || error != std::errc() || end != t.data() + t.size() || !std::isfinite(value))
    return std::nullopt;
  return value;
}

std::optional<std::string> rangeProblem(std::string_view text) {
  bool any = false;
  for (std::string_view item : Basalt::splitAt(text, ",;")) {
    if (trimmed(item).empty())
      continue;
    any = true;
    const auto pieces = Basalt::splitAt(item, ":");
    bool numbers = pieces.size() <= 2;
    for (std::string_view piece : pieces)
      numbers = numbers && finiteNumber(piece).has_value();
    if (!numbers)
      return quoted(item, text) + " is not a value or low:high of finite numbers";
    // A reversed range holds nothing: the ends were swapped by mistake.
    if (pieces.size() == 2 && *finiteNumber(pieces[0]) > *finiteNumber(pieces[1]))
      return quoted(item, text) + " is reversed: its low end is above its high end";
  }
  if (any && Vantor::MultiRange<double>(std::string(text)).empty())
    return inQuotes(text) + " is not a range the library reads";
  return std::nullopt;
}

std::optional<std::string> bandsProblem(std::string_view text) {
  for (std::string_view item : Basalt::splitAt(text, ",;")) {
    if (trimmed(item).empty())
      continue;
    const auto parts = Basalt::splitAt(item, "=");
    const auto distance = finiteNumber(parts[0]);
    if (parts.size() > 2 || !distance || *distance < 0 ||
        (parts.size() == 2 && !wholeNumber(parts[1])))
      return quoted(item, text) + " is not a distance or distance=class";
    // Classes are stored in one byte: 999 would become 231.
    if (const auto cls = parts.size() == 2 ? wholeNumber(parts[1]) : std::nullopt;
        cls && (*cls < 0 || *cls > 255))
      return quoted(item, text) + " gives a class outside 0 to 255";
  }
  return std::nullopt;
}

std::optional<std::string> problem(const FieldCheck& check, std::string_view text) {
  if (check.rule == Rule::RangeText)
    return rangeProblem(text);
  if (check.rule == Rule::BandsText)
    return bandsProblem(text);
  if (check.rule == Rule::OneOf) {
    if (isChoice(check.choices, trimmed(text)))
      return std::nullopt;
  } else if (check.rule == Rule::WholeWithin) {
    const auto value = wholeNumber(text);
    if (value && passes(check, static_cast<double>(*value)))
      return std::nullopt;
  } else if (const auto value = finiteNumber(text); value && passes(check, *value)) {
    return std::nullopt;
  } else if (check.nanUnset && trimmed(text) == "nan") {
    return std::nullopt;
  }
  return inQuotes(text) + " " + expected(check);
}

std::optional<std::string> problem(const FieldCheck& check, double value) {
  if (check.rule == Rule::RangeText || check.rule == Rule::BandsText)
    return problem(check, Basalt::format("%g", value));
  if (passes(check, value) || (check.nanUnset && std::isnan(value)))
    return std::nullopt;
  return inQuotes(Basalt::format("%g", value)) + " " + expected(check);
}

std::string named(std::string_view field, const std::string& problem) {
  return inQuotes(field) + ": " + problem;
}

} // namespace Quorvel::Checks
