// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: the progress bar shown on a terminal while a file is read, an algorithm runs and
// a file is written.
#pragma once

#include "basalt/loader_progress.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace Quorvel::Cli {

// One step of a run on standard error: while it lasts, a line redrawn ten times a second with a
// bar (when the step reports fractions), the elapsed time and, once the point count is known,
// points per second; finish() replaces it with a final line. Only made when standard error is a
// terminal, so logs and pipes never see it. progress() may be called from any thread.
class Phase final : public Basalt::LoaderProgress {
public:
  explicit Phase(std::string label);
  ~Phase() override;
  Phase(const Phase&) = delete;
  Phase& operator=(const Phase&) = delete;

  void progress(double fraction, const std::string& what) override;
  // Sets the points the step handles, for the rate.
  void setPoints(std::size_t points) { points_ = points; }
  // Stops the redrawing and writes the final line "<label>: <points> points, <s> s, <n> points/s".
  void finish();

private:
  void draw(bool final);
  void tick();

  std::string label_;
  std::chrono::steady_clock::time_point start_;
  std::atomic<double> fraction_{-1.0};
  std::atomic<std::size_t> points_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread ticker_;
};

} // namespace Quorvel::Cli
