// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: the terminal progress bar.
#include "cli/progress.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Quorvel::Cli {

namespace {

constexpr int BarWidth = 24;

// 12345678 as "12,345,678".
std::string grouped(std::size_t n) {
  std::string digits = std::to_string(n), out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0)
      out += ',';
    out += digits[i];
  }
  return out;
}

} // namespace

Phase::Phase(std::string label)
    : label_(std::move(label)), start_(std::chrono::steady_clock::now()),
      ticker_([this] { tick(); }) {}

Phase::~Phase() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (ticker_.joinable()) {
    ticker_.join();
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

void Phase::progress(double fraction, const std::string&) {
  if (std::isfinite(fraction))
    fraction_ = std::clamp(fraction, 0.0, 1.0);
}

void Phase::finish() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (ticker_.joinable())
    ticker_.join();
  draw(true);
}

void Phase::tick() {
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, std::chrono::milliseconds(100), [this] { return stop_; }))
    draw(false);
}

void Phase::draw(bool final) {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  std::string line = "\r\033[K" + label_;
  const double fraction = final ? 1.0 : fraction_.load();
  if (!final && fraction >= 0.0) {
    const int filled = static_cast<int>(fraction * BarWidth);
    line += " [" + std::string(static_cast<std::size_t>(filled), '#') +
            std::string(static_cast<std::size_t>(BarWidth - filled), '.') + "] " +
            std::to_string(static_cast<int>(fraction * 100.0)) + "%";
  }
  const std::size_t points = points_;
  if (final && points > 0)
    line += ": " + grouped(points) + " points,";
  char tail[96];
  std::snprintf(tail, sizeof tail, " %.*f s", final ? 2 : 1, seconds);
  line += tail;
  if (points > 0 && seconds > 0.0)
    line += ", " + grouped(static_cast<std::size_t>(static_cast<double>(points) / seconds)) +
            " points/s";
  if (final)
    line += "\n";
  std::fputs(line.c_str(), stderr);
  std::fflush(stderr);
}

} // namespace Quorvel::Cli
