// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: threads, diagnostics and the parameter-box print convention.
#include "quorvel/core/core.hpp"

#include <algorithm>
#include <omp.h>

namespace Quorvel {

int maximumThreadsMinusOne() {
  return std::max(1, omp_get_max_threads() - 1);
}

int correctedThreadCount(int requested) {
  if (requested <= 0 || requested > omp_get_max_threads())
    return maximumThreadsMinusOne();
  return requested;
}

void underCriticalSection(const std::function<void()>& f) {
#pragma omp critical
  f();
}

void Messages::report(std::string_view text) {
  note(text);
  if (collected_) {
    std::lock_guard<std::mutex> lock(mutex_);
    collected_->append(text);
  }
}

void Messages::note(std::string_view text) const {
  Basalt::Console() << tag_ << text;
}

std::size_t FragmentProgress::step() {
  std::size_t count = 0;
  underCriticalSection([&] {
    count = ++done_;
    Basalt::Console::write(prefix_ + std::to_string(count) + " / " + std::to_string(total_) +
                           suffix_);
  });
  return count;
}

void printField(std::string_view label, const MultiRange<double>& range) {
  Basalt::Console() << label << range.to_string();
}

} // namespace Quorvel
