// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: acquisition dates from file names and GPS weeks.
#include "quorvel/metadata/metadata.hpp"

#include "basalt/console.hpp"

// The date library's parser leaves a seconds field unset on paths that GCC 12 cannot prove
// unreachable; the warning is about the library, not this file.
#if !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>
#include <cmath>
#include <ctime>
#include <date/date.h>
#include <limits>
#include <regex>
#include <sstream>

namespace Quorvel {

namespace {

struct Pattern {
  const char* expression;
  std::vector<const char*> formats;
};

const std::vector<Pattern>& patterns() {
  static const std::vector<Pattern> table = {
      {".*([[:digit:]]{6}\\_[[:digit:]]{6}).*", {"%y%m%d_%H%M%S"}},
      {".*([[:digit:]]{2}.[[:digit:]]{2}.[[:digit:]]{4}).*", {"%d.%m.%Y"}},
      {".*([[:digit:]]{8}).*", {"%d%m%Y", "%Y%m%d"}},
      {".*([[:digit:]]{6}).*", {"%d%m%y", "%y%m%d"}},
  };
  return table;
}

std::string twoDigits(long long value) {
  return Basalt::format("%02lld", value);
}

} // namespace

Chronometry::Chronometry(const std::string& fileName) {
  static const std::vector<std::regex> expressions = [] {
    std::vector<std::regex> out;
    for (const auto& pattern : patterns())
      out.emplace_back(pattern.expression);
    return out;
  }();
  for (std::size_t k = 0; k < patterns().size() && year == 0; ++k) {
    std::smatch match;
    if (!std::regex_match(fileName, match, expressions[k]))
      continue;
    const std::string captured = match[1].str();
    for (const char* format : patterns()[k].formats) {
      std::istringstream in(captured);
      date::local_seconds stamp;
      in >> date::parse(format, stamp);
      if (in.fail())
        continue;
      const auto days = date::floor<date::days>(stamp);
      const date::year_month_day ymd(days);
      const date::hh_mm_ss<std::chrono::seconds> time(stamp - days);
      year = static_cast<int>(ymd.year());
      month = static_cast<unsigned>(ymd.month());
      day = static_cast<unsigned>(ymd.day());
      hour = static_cast<std::uint32_t>(time.hours().count());
      minute = static_cast<std::uint32_t>(time.minutes().count());
      second = static_cast<std::uint32_t>(time.seconds().count());
      day_of_week = static_cast<std::uint16_t>(date::weekday(days).c_encoding());
      gps_week = compute_gps_week(day, month, static_cast<unsigned>(year));
      break;
    }
  }
}

void Chronometry::print() const {
  Basalt::Console() << "Chronometry: " << twoDigits(day) << "|" << twoDigits(month) << "|" << year
                    << " " << twoDigits(hour) << ":" << twoDigits(minute) << ":"
                    << twoDigits(second) << " - day of week: " << day_of_week;
}

std::string Chronometry::ddmmyy(char sep) const {
  return twoDigits(day) + sep + twoDigits(month) + sep + twoDigits(year % 100);
}

std::string Chronometry::ddmmyyyy(char sep) const {
  return twoDigits(day) + sep + twoDigits(month) + sep + std::to_string(year);
}

std::string Chronometry::yyyymmdd(char sep) const {
  return std::to_string(year) + sep + twoDigits(month) + sep + twoDigits(day);
}

std::string Chronometry::yymmdd(char sep) const {
  return twoDigits(year % 100) + sep + twoDigits(month) + sep + twoDigits(day);
}

int compute_gps_week(unsigned day, unsigned month, unsigned year) {
  // A year that the calendar record cannot hold is rejected like a failed conversion.
  const long long recordYear = static_cast<long long>(year) - 1900;
  if (recordYear > std::numeric_limits<int>::max() ||
      day > static_cast<unsigned>(std::numeric_limits<int>::max()) ||
      month > static_cast<unsigned>(std::numeric_limits<int>::max()))
    return 0;
  std::tm date{};
  date.tm_mday = static_cast<int>(day);
  date.tm_mon = static_cast<int>(month);
  date.tm_year = static_cast<int>(recordYear);
  date.tm_isdst = 0;
  std::tm reference{};
  reference.tm_mday = 6;
  reference.tm_mon = 1;
  reference.tm_year = 80;
  reference.tm_isdst = 0;
  const std::time_t when = std::mktime(&date);
  const std::time_t start = std::mktime(&reference);
  if (when == static_cast<std::time_t>(-1) || start == static_cast<std::time_t>(-1))
    return 0;
  return static_cast<int>(std::trunc(std::difftime(when, start) * (1.0 / 604800.0)));
}

std::string current_date_and_time(char sep) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  // asctime's own layout, in English whatever the locale (asctime itself is not thread-safe).
  static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::string text = Basalt::format("%.3s %.3s%3d %.2d:%.2d:%.2d %d\n", days[local.tm_wday % 7],
                                    months[local.tm_mon % 12], local.tm_mday, local.tm_hour,
                                    local.tm_min, local.tm_sec, 1900 + local.tm_year);
  text.erase(std::remove(text.begin(), text.end(), ':'), text.end());
  text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
  if (sep != ' ')
    std::replace(text.begin(), text.end(), ' ', '_');
  return text;
}

} // namespace Quorvel
