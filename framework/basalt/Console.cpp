// Quorvel framework, memory core: console output.
#include "basalt/Console.hpp"

#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <mutex>

namespace Basalt {

namespace {
std::mutex& consoleMutex() {
  static std::mutex mutex;
  return mutex;
}
} // namespace

Console::~Console() {
  line_ << '\n';
  write(line_.view());
}

void Console::write(std::string_view text) {
  std::lock_guard<std::mutex> lock(consoleMutex());
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
  std::cout.flush();
}

std::string format(const char* fmt, ...) {
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
  return out;
}

} // namespace Basalt
