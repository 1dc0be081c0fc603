// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: parsers of class-assignment texts.
#include "quorvel/core/core.hpp"

#include "basalt/text.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace Quorvel {

using Basalt::cAtof;
using Basalt::cAtoi;
using Basalt::splitAt;

namespace {

// A range part "a" or "a:b" as its first and last number; false for more than two pieces.
bool readRange(std::string_view text, std::pair<double, double>& out) {
  const auto pieces = splitAt(text, ":");
  if (pieces.size() > 2)
    return false;
  out = {cAtof(pieces.front()), cAtof(pieces.back())};
  return true;
}

// A class part: no ':' and a value that, truncated toward zero, fits an int.
bool readClass(std::string_view text, int& out) {
  if (text.find(':') != std::string_view::npos)
    return false;
  const double value = std::trunc(cAtof(text));
  if (!(value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max()))
    return false;
  out = static_cast<int>(value);
  return true;
}

bool isClassCode(int value) {
  return value >= 0 && value <= 255;
}

} // namespace

bool assignClassesToClasses(const std::string& input, std::vector<unsigned char>& table) {
  table.resize(256);
  for (int c = 0; c < 256; ++c)
    table[static_cast<std::size_t>(c)] = static_cast<unsigned char>(c);
  const std::string_view text = Basalt::beforeNul(input);
  if (text.empty())
    return true;

  for (std::string_view item : splitAt(text, ";,")) {
    if (item.empty())
      return false;
    const auto parts = splitAt(item, ">");
    if (parts.size() != 2)
      return false;
    const auto source = splitAt(parts[0], ":");
    if (source.size() > 2 || parts[1].find(':') != std::string_view::npos)
      return false;
    const int a = cAtoi(source.front());
    const int b = cAtoi(source.back());
    const int t = cAtoi(parts[1]);
    if (!isClassCode(a) || !isClassCode(b) || !isClassCode(t))
      return false;
    for (int c = std::min(a, b); c <= std::max(a, b); ++c)
      table[static_cast<std::size_t>(c)] = static_cast<unsigned char>(t);
  }
  return true;
}

bool assignRangesToClasses(const std::string& input,
                           std::vector<std::pair<std::pair<double, double>, int>>& table) {
  const std::string_view text = Basalt::beforeNul(input);
  if (text.empty())
    return false;

  for (std::string_view item : splitAt(text, ";,")) {
    const auto parts = splitAt(item, "=");
    if (parts.size() != 2)
      return false;
    std::pair<double, double> range;
    int cls = 0;
    if (!readRange(parts[0], range) || !readClass(parts[1], cls))
      return false;
    table.push_back(
        {{std::min(range.first, range.second), std::max(range.first, range.second)}, cls});
  }
  return true;
}

bool reclassificationAccordingToRange(
    const std::string& input,
    std::vector<std::tuple<std::pair<double, double>, std::pair<double, double>, int>>& table) {
  const std::string_view text = Basalt::beforeNul(input);
  if (text.empty())
    return false;

  for (std::string_view item : splitAt(text, ";,")) {
    const auto parts = splitAt(item, "=");
    if (parts.size() != 3)
      return false;
    std::pair<double, double> first, second;
    int cls = 0;
    if (!readRange(parts[0], first) || !readRange(parts[1], second) || !readClass(parts[2], cls))
      return false;
    table.emplace_back(first, second, cls);
  }
  return true;
}

void printAssignment(const std::vector<std::pair<std::pair<double, double>, int>>& table) {
  std::string out;
  for (const auto& [range, cls] : table)
    out += Basalt::format("[%.3f;%.3f] > %d\n", range.first, range.second, cls);
  Basalt::Console::write(out);
}

} // namespace Quorvel
