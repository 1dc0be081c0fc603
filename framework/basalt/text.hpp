// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: small text helpers of the parsers: splitting, lenient number
// reading independent of the global locale.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Basalt {

// The part of text before its first NUL character (all of it when there is none).
std::string_view beforeNul(const std::string& text);

// Splits at every occurrence of any character of separators; empty parts are kept, so "1>2;"
// split at ";," gives "1>2" and "".
std::vector<std::string_view> splitAt(std::string_view text, std::string_view separators);

// The number readers below take a string_view; the text is copied to a terminated buffer.
double cAtof(std::string_view text);
int cAtoi(std::string_view text);

// printf-style formatting into a string, always with the "C" locale's decimal point, so that
// messages and range texts do not change with the host's locale.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Reads a number the way the C library's atof does in the "C" locale: leading white space is
// skipped, trailing text is ignored, text that is no number reads as 0. Unlike atof, the result
// does not change when the host program has set a locale with a decimal comma.
double cAtof(const char* text);

// Reads an integer the way atoi does (leading white space, sign, digits, rest ignored, 0 when
// there is no number); values beyond the range of int saturate instead of overflowing.
int cAtoi(const char* text);

} // namespace Basalt
