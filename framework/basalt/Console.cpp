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

// Read and changed under the console lock only.
std::ostream* sinkStream = &std::cout;
} // namespace

Console::~Console() {
  line_ << '\n';
  write(line_.view());
}

void Console::write(std::string_view text) {
  std::lock_guard<std::mutex> lock(consoleMutex());
  if (!sinkStream)
    return;
  sinkStream->write(text.data(), static_cast<std::streamsize>(text.size()));
  sinkStream->flush();
}

void Console::setSink(std::ostream* sink) {
  std::lock_guard<std::mutex> lock(consoleMutex());
  sinkStream = sink;
}

} // namespace Basalt
