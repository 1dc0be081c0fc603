// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, geometry: sets of closed value intervals parsed from short texts.
#pragma once

#include "basalt/strong_ptr.hpp"

#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Vantor {

// A sorted list of closed intervals read from a text such as "2:5,9" or "-5:-1;7": items are
// separated by ',' or ';', an item is a single value or two values joined by ':'.
//
// Text grammar, item by item (only the text before a first NUL counts):
//  - empty items, and items made only of blanks, are skipped;
//  - leading blanks, tabs, line feeds and carriage returns are dropped, and the item ends at its
//    first tab, line feed or carriage return; pieces between ':' are trimmed alike;
//  - a '-' may only be the first character of a piece (a sign): 1-5 and 1e-5 are invalid;
//  - one piece a gives [a, a], two pieces a:b give [min(a,b), max(a,b)], more are invalid;
//  - numbers are read leniently like atof (an unreadable number reads as 0); "nan" is invalid.
// The first invalid item empties the range and writes
// "MultiRange(const string& input), ERROR: invalid range: <text>" to standard output.
//
// minimum and maximum keep their starting values until a parse sets them: the largest finite
// double and the smallest positive normal double. maximum is raised to each interval's high, so
// a range that lies wholly below that tiny positive number reports it as its maximum.
template <class T>
class MultiRange : public Basalt::ReferenceBase {
public:
  using Interval = std::pair<T, T>;

  static constexpr T initialMinimum = std::numeric_limits<T>::max();
  static constexpr T initialMaximum = std::numeric_limits<T>::min();

  MultiRange() = default;
  explicit MultiRange(const std::string& text);

  // Parses text and adds its intervals to those already held (see the grammar above).
  void construct(const std::string& text);

  // True when some interval, widened by tolerance on both sides, holds x; an empty range holds
  // nothing. minimum and maximum reject far values before the intervals are searched.
  bool contains(const T& x, double tolerance) const;

  // "low:high" per interval with six decimals, joined by ','; empty for an empty range.
  std::string to_string() const;

  bool empty() const { return intervals.empty(); }

private:
  void reject(std::string_view text);

public:
  std::vector<Interval> intervals;
  T minimum = initialMinimum;
  T maximum = initialMaximum;
};

extern template class MultiRange<double>;

} // namespace Vantor
