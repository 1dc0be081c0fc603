// Quorvel framework, memory core: console output that never interleaves between threads.
#pragma once

#include "basalt/Text.hpp"

#include <locale>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace Basalt {

// A temporary message: collect one line with operator<< and it is written to the console's sink
// (standard output unless the host chose another), followed by a line feed, when the object is
// destroyed. Numbers use the stream's default
// formatting (doubles with six significant digits, "0.001", "250", "1e-06"); booleans print as
// the digit 0 or 1. Lines from several threads never mix.
class Console {
public:
  Console() { line_.imbue(std::locale::classic()); }
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  template <class T>
  Console& operator<<(const T& value) {
    line_ << value;
    return *this;
  }

  // Writes text as it is (no line feed added) under the console lock and flushes; used for
  // progress lines that end in a carriage return.
  static void write(std::string_view text);

  // Where the lines go from now on: standard output by default, another stream (a host that
  // keeps its standard output for data shows them on standard error), or nowhere (nullptr).
  // The library always writes its lines; only the host decides where they end up.
  static void setSink(std::ostream* sink);

private:
  std::ostringstream line_;
};

} // namespace Basalt
