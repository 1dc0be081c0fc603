// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: lenient number reading.
#include "basalt/text.hpp"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <locale.h>

namespace Basalt {

namespace {
locale_t cLocale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return locale;
}
} // namespace

double cAtof(const char* text) {
  if (text == nullptr)
    return 0.0;
  return strtod_l(text, nullptr, cLocale());
}

std::string_view beforeNul(const std::string& text) {
  return std::string_view(text).substr(0, text.find('\0'));
}

std::vector<std::string_view> splitAt(std::string_view text, std::string_view separators) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (;;) {
    const auto pos = text.find_first_of(separators, start);
    if (pos == std::string_view::npos) {
      parts.push_back(text.substr(start));
      return parts;
    }
    parts.push_back(text.substr(start, pos - start));
    start = pos + 1;
  }
}

double cAtof(std::string_view text) {
  return cAtof(std::string(text).c_str());
}

int cAtoi(std::string_view text) {
  return cAtoi(std::string(text).c_str());
}

int cAtoi(const char* text) {
  if (text == nullptr)
    return 0;
  const long value = strtol_l(text, nullptr, 10, cLocale());
  if (value > INT_MAX)
    return INT_MAX;
  if (value < INT_MIN)
    return INT_MIN;
  return static_cast<int>(value);
}

std::string format(const char* fmt, ...) {
  // vsnprintf follows the thread's locale; switch this thread to "C" for the call.
  const locale_t previous = uselocale(cLocale());
  va_list args;
  va_start(args, fmt);
  va_list copy;
  va_copy(copy, args);
  const int needed = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  std::string out;
  if (needed > 0) {
    out.resize(static_cast<std::size_t>(needed) + 1);
    std::vsnprintf(out.data(), out.size(), fmt, args);
    out.resize(static_cast<std::size_t>(needed));
  }
  va_end(args);
  uselocale(previous);
  return out;
}

} // namespace Basalt
