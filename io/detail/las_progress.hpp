// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: progress of reading and writing LAS, reported at most once per percent of the points
// however they are split into fragments.
#pragma once

#include "basalt/loader_progress.hpp"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>

namespace Quorvel::Las::detail {

class Percent {
public:
  Percent(const Basalt::StrongPtr<Basalt::LoaderProgress>& progress, std::size_t total,
          std::string what)
      : progress_(progress), what_(std::move(what)), total_(std::max<std::size_t>(total, 1)),
        step_(std::max<std::size_t>(total_ / 100, 4096)), next_(step_) {}

  // Points to handle between two reports (all of them when nobody listens).
  std::size_t step() const { return progress_ ? step_ : std::numeric_limits<std::size_t>::max(); }

  // done points are handled.
  void reached(std::size_t done) {
    if (progress_ && (done >= next_ || done >= total_) && done > reported_) {
      progress_->progress(static_cast<double>(std::min(done, total_)) / static_cast<double>(total_),
                          what_);
      reported_ = done;
      next_ = done + step_;
    }
  }
  void finish() { reached(total_); }

private:
  const Basalt::StrongPtr<Basalt::LoaderProgress>& progress_;
  std::string what_;
  std::size_t total_, step_, next_, reported_ = 0;
};

} // namespace Quorvel::Las::detail
