// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: console output that never interleaves between threads.
#pragma once

#include "basalt/text.hpp"

#include <locale>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

namespace Basalt {

// A temporary message: collect one line with operator<< and it is written to the console's sink
// (standard output unless a host chose another), followed by a line feed, when the object is
// destroyed. Numbers use the stream's default formatting (doubles with six significant digits,
// "0.001", "250", "1e-06"); booleans print as the digit 0 or 1. Lines from several threads never
// mix.
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

  // Where every line of the process goes from now on: a host shows the library's lines where it
  // wants them (std::cerr beside data on standard output) or discards them (nullptr). Returns
  // the sink before. Standard output by default. The stream must outlive its use.
  static std::ostream* setSink(std::ostream* sink);

  // While a Capture lives, the lines of the thread that made it are collected in it instead of
  // going to the sink: a host that was asked for a text (a box's print()) gets it whatever the
  // sink, and lines of other threads stay apart. Captures nest; the innermost one collects.
  class Capture {
  public:
    Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    ~Capture();
    std::string text() const { return text_.str(); }

  private:
    std::ostringstream text_;
    std::ostringstream* outer_;
  };

private:
  std::ostringstream line_;
};

} // namespace Basalt
