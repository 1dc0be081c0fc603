// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: value ranges.
#include "vantor/multi_range.hpp"

#include "basalt/console.hpp"
#include "basalt/text.hpp"

#include <algorithm>
#include <string_view>

namespace Vantor {

namespace {

// Drops leading blanks, tabs, line feeds and carriage returns, then cuts at the first tab, line
// feed or carriage return; trailing blanks stay (the number reader ignores them).
std::string_view trimItem(std::string_view s) {
  const auto first = s.find_first_not_of(" \t\n\r");
  if (first == std::string_view::npos)
    return {};
  s.remove_prefix(first);
  const auto cut = s.find_first_of("\t\n\r");
  return cut == std::string_view::npos ? s : s.substr(0, cut);
}

bool onlyBlanks(std::string_view s) {
  return s.find_first_not_of(' ') == std::string_view::npos;
}

} // namespace

template <class T>
MultiRange<T>::MultiRange(const std::string& text) {
  construct(text);
}

template <class T>
void MultiRange<T>::construct(const std::string& input) {
  const std::string_view text = Basalt::beforeNul(input);

  for (std::string_view rawItem : Basalt::splitAt(text, ",;")) {
    const std::string_view item = trimItem(rawItem);
    if (onlyBlanks(item))
      continue;

    std::vector<std::string_view> pieces = Basalt::splitAt(item, ":");
    bool valid = pieces.size() == 1 || pieces.size() == 2;
    for (auto& piece : pieces) {
      piece = trimItem(piece);
      const auto dash = piece.find('-');
      if (dash != std::string_view::npos && (dash != 0 || piece.find('-', 1) != piece.npos))
        valid = false;
    }
    if (!valid) {
      reject(text);
      return;
    }

    const T a = static_cast<T>(Basalt::cAtof(pieces.front()));
    const T b = static_cast<T>(Basalt::cAtof(pieces.back()));
    // "nan" reads as a number but bounds nothing and cannot be sorted.
    if (a != a || b != b)
      valid = false;
    if (!valid) {
      reject(text);
      return;
    }
    const Interval interval{std::min(a, b), std::max(a, b)};
    intervals.push_back(interval);
    maximum = std::max(maximum, interval.second);
  }

  if (!intervals.empty()) {
    std::sort(intervals.begin(), intervals.end());
    minimum = intervals.front().first;
  }
}

template <class T>
void MultiRange<T>::reject(std::string_view text) {
  Basalt::Console() << "MultiRange(const string& input), ERROR: invalid range: " << text;
  intervals.clear();
  maximum = initialMaximum;
}

template <class T>
bool MultiRange<T>::contains(const T& x, double tolerance) const {
  if (intervals.empty())
    return false;
  if (x < minimum - tolerance || x > maximum + tolerance)
    return false;
  for (const auto& [low, high] : intervals)
    if (low - tolerance <= x && x <= high + tolerance)
      return true;
  return false;
}

template <class T>
std::string MultiRange<T>::to_string() const {
  std::string out;
  for (const auto& [low, high] : intervals) {
    if (!out.empty())
      out += ',';
    out += Basalt::format("%f:%f", static_cast<double>(low), static_cast<double>(high));
  }
  return out;
}

template class MultiRange<double>;

} // namespace Vantor
