// Quorvel framework, memory core: console output that never interleaves between threads.
#pragma once

#include "basalt/Text.hpp"

#include <locale>
#include <sstream>
#include <string>
#include <string_view>

namespace Basalt {

// A temporary message: collect one line with operator<< and it is written to standard output,
// followed by a line feed, when the object is destroyed. Numbers use the stream's default
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

private:
  std::ostringstream line_;
};

} // namespace Basalt
