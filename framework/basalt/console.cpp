// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: console output.
#include "basalt/console.hpp"

#include <iostream>
#include <mutex>
#include <utility>

namespace Basalt {

namespace {
std::mutex& consoleMutex() {
  static std::mutex mutex;
  return mutex;
}

// Guarded by the console mutex.
std::ostream* sink = &std::cout;

// The calling thread's innermost capture, if any.
thread_local std::ostringstream* capture = nullptr;
} // namespace

Console::~Console() {
  line_ << '\n';
  write(line_.view());
}

void Console::write(std::string_view text) {
  if (capture) {
    capture->write(text.data(), static_cast<std::streamsize>(text.size()));
    return;
  }
  std::lock_guard<std::mutex> lock(consoleMutex());
  if (!sink)
    return;
  sink->write(text.data(), static_cast<std::streamsize>(text.size()));
  sink->flush();
}

std::ostream* Console::setSink(std::ostream* to) {
  std::lock_guard<std::mutex> lock(consoleMutex());
  return std::exchange(sink, to);
}

Console::Capture::Capture() : outer_(std::exchange(capture, &text_)) {}

Console::Capture::~Capture() {
  capture = outer_;
}

} // namespace Basalt
