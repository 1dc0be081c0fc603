// quorvel host: checks of option values.
#include "cli/checks.hpp"

#include "basalt/Text.hpp"
#include "vantor/MultiRange.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>

namespace Quorvel::Cli {

namespace {

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos)
    return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(first, last - first + 1));
}

// The item, quoted, and the whole text when that holds more.
std::string quoted(std::string_view item, const std::string& text) {
  const std::string t = trimmed(item);
  return "\"" + t + "\"" + (t == trimmed(text) ? "" : " in \"" + text + "\"");
}

bool wholeNumber(std::string_view text) {
  const std::string t = trimmed(text);
  if (t.empty())
    return false;
  char* end = nullptr;
  errno = 0;
  std::strtol(t.c_str(), &end, 10);
  return *end == '\0' && errno == 0;
}

} // namespace

std::optional<double> finiteNumber(std::string_view text) {
  const std::string t = trimmed(text);
  if (t.empty())
    return std::nullopt;
  char* end = nullptr;
  const double value = std::strtod(t.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value))
    return std::nullopt;
  return value;
}

CLI::Validator positiveNumber() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        const auto value = finiteNumber(text);
        return value && *value > 0 ? "" : "\"" + text + "\" is not a positive finite number";
      },
      "POSITIVE");
}

CLI::Validator numberWithin(double low, double high) {
  const std::string bounds = Basalt::format("%g to %g", low, high);
  const std::string name = Basalt::format("%g..%g", low, high);
  return CLI::Validator(
      [low, high, bounds](std::string& text) -> std::string {
        const auto value = finiteNumber(text);
        return value && *value >= low && *value <= high
                   ? ""
                   : "\"" + text + "\" is not a number from " + bounds;
      },
      name);
}

CLI::Validator oneOf(const std::vector<std::string>& choices) {
  std::string list;
  for (const std::string& choice : choices)
    list += (list.empty() ? "" : ", ") + choice;
  return CLI::Validator(
      [choices, list](std::string& text) -> std::string {
        for (const std::string& choice : choices)
          if (trimmed(text) == choice)
            return "";
        return "\"" + text + "\" is not one of " + list;
      },
      "{" + list + "}");
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

CLI::Validator nonNegativeNumber() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        const auto value = finiteNumber(text);
        return value && *value >= 0 ? "" : "\"" + text + "\" is not a finite number of 0 or more";
      },
      "NUMBER>=0");
}

CLI::Validator finiteNumberCheck() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        return finiteNumber(text) ? "" : "\"" + text + "\" is not a finite number";
      },
      "NUMBER");
}

std::optional<std::string> unwritableName(const std::string& path) {
  const std::string extension = std::filesystem::path(path).extension().string();
  if (extension == ".las" || extension == ".laz" || extension == ".h5" || extension == ".hdf5")
    return std::nullopt;
  return "\"" + path +
         "\" names no file type the host writes (.las for LAS, .laz for LAZ, .h5 or .hdf5 for a "
         "bundle)";
}

CLI::Validator outputFile() {
  return CLI::Validator(
      [](std::string& path) -> std::string { return unwritableName(path).value_or(""); }, "FILE");
}

CLI::Validator rasterOutputFile() {
  return CLI::Validator(
      [](std::string& path) -> std::string {
        const std::string extension = std::filesystem::path(path).extension().string();
        if (extension == ".h5" || extension == ".hdf5" || extension == ".tif" ||
            extension == ".tiff")
          return "";
        return "\"" + path +
               "\" names no raster file type the host writes (.h5 or .hdf5 for a bundle, .tif "
               "or .tiff for a GeoTIFF)";
      },
      "FILE");
}

void checkRange(const std::string& name, const std::string& text) {
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
      throw CLI::ValidationError(name, quoted(item, text) +
                                           " is not a value or low:high of finite numbers");
  }
  if (any && Vantor::MultiRange<double>(text).empty())
    throw CLI::ValidationError(name, "\"" + text + "\" is not a range the library reads");
}

void checkBands(const std::string& name, const std::string& text) {
  for (std::string_view item : Basalt::splitAt(text, ",;")) {
    if (trimmed(item).empty())
      continue;
    const auto parts = Basalt::splitAt(item, "=");
    const auto distance = finiteNumber(parts[0]);
    if (parts.size() > 2 || !distance || *distance < 0 ||
        (parts.size() == 2 && !wholeNumber(parts[1])))
      throw CLI::ValidationError(name, quoted(item, text) + " is not a distance or distance=class");
  }
}

} // namespace Quorvel::Cli
