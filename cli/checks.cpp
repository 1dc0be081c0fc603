// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: checks of option values. The rules and their words are the library's table of
// parameter checks, which the Python package uses too.
#include "cli/checks.hpp"

#include "io/text.hpp"

#include "basalt/text.hpp"
#include "io/files.hpp"

#include <algorithm>
#include <filesystem>
#include <limits>

namespace Quorvel::Cli {

namespace {

// A validator from a rule of the table; its name shows in the help beside the option's type.
CLI::Validator fromRule(const Checks::FieldCheck& check) {
  std::string name;
  switch (check.rule) {
  case Checks::Rule::PositiveNumber:
    name = "POSITIVE";
    break;
  case Checks::Rule::NumberWithin:
  case Checks::Rule::WholeWithin:
    if (check.high == std::numeric_limits<double>::max())
      name = check.low == -check.high ? "NUMBER" : Basalt::format("NUMBER>=%g", check.low);
    else
      name = Basalt::format("%g..%g", check.low, check.high);
    break;
  case Checks::Rule::OneOf:
    for (std::string_view choice : Basalt::splitAt(check.choices, "|"))
      name += (name.empty() ? "{" : ", ") + std::string(choice);
    name += "}";
    break;
  default:
    break;
  }
  return CLI::Validator(
      [check](std::string& text) -> std::string {
        return Checks::problem(check, text).value_or("");
      },
      name);
}

} // namespace

CLI::Validator boxRule(std::string_view box, std::string_view field) {
  const Checks::FieldCheck* check = Checks::checkOf(box, field);
  if (!check)
    throw std::logic_error("no check of " + std::string(box) + "." + std::string(field));
  return fromRule(*check);
}

CLI::Validator oneOf(const std::string& choices) {
  // The rule refers to its choices: the validator keeps them alive with it.
  const auto kept = std::make_shared<const std::string>(choices);
  const Checks::FieldCheck check{"", Checks::Rule::OneOf, 0, 0, *kept};
  CLI::Validator rule = fromRule(check);
  return CLI::Validator([rule, kept](std::string& text) -> std::string { return rule(text); },
                        rule.get_description());
}

std::optional<std::string> unwritableName(const std::string& path) {
  if (Files::isCloudFile(path) || Files::isStream(path) || Text::isText(path) || Text::isPly(path))
    return std::nullopt;
  return "\"" + path +
         "\" names no file type the host writes (.las for LAS, .laz for LAZ, .copc.laz for COPC, "
         ".h5 or .hdf5 for a bundle, .csv, .xyz or .txt for text, .ply for PLY, - for LAS on "
         "standard output)";
}

CLI::Validator outputFile() {
  return CLI::Validator(
      [](std::string& path) -> std::string { return unwritableName(path).value_or(""); }, "FILE");
}

CLI::Validator rasterOutputFile() {
  return CLI::Validator(
      [](std::string& path) -> std::string {
        if (Files::isBundle(path) || Files::isGeoTiff(path))
          return "";
        return "\"" + path +
               "\" names no raster file type the host writes (.h5 or .hdf5 for a bundle, .tif "
               "or .tiff for a GeoTIFF)";
      },
      "FILE");
}

void checkRange(const std::string& name, const std::string& text) {
  if (const auto problem = Checks::rangeProblem(text))
    throw CLI::ValidationError(name, *problem);
}

void checkBands(const std::string& name, const std::string& text) {
  // The library reads an empty text as its default band; given on a command line or in a
  // pipeline it is rather a value that went missing (an unset variable).
  if (text.find_first_not_of(" \t\r\n") == std::string::npos)
    throw CLI::ValidationError(name, "an empty value holds no distance (leave the option out "
                                     "for the default)");
  if (const auto problem = Checks::bandsProblem(text))
    throw CLI::ValidationError(name, *problem);
}

std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j)
    row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t above = row[j];
      row[j] = std::min({above + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

} // namespace Quorvel::Cli
