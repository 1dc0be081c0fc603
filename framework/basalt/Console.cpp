// Quorvel framework, memory core: console output.
#include "basalt/Console.hpp"

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

} // namespace Basalt
