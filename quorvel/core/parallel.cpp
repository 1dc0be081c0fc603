// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the thread split and the first-error rule of the parallel loops.
#include "quorvel/core/parallel.hpp"

#include <algorithm>
#include <omp.h>

namespace Quorvel {

int allThreads() {
  return std::max(1, omp_get_max_threads());
}

void openThreads(int threads) {
  if (threads <= 1)
    return;
#pragma omp parallel num_threads(threads)
  {}
}

ThreadSplit splitThreads(int threads, std::size_t count) {
  threads = std::max(1, threads);
  if (count >= static_cast<std::size_t>(threads))
    return {threads, 1};
  // Reading the runtime's limit changes nothing; a region inside a region runs on one thread
  // when the limit is reached, and the items then go one after the other instead.
  if (count > 1 && omp_get_active_level() + 2 <= omp_get_max_active_levels()) {
    const int outer = static_cast<int>(count);
    return {outer, threads / outer};
  }
  return {1, threads};
}

int loops::workerIndex() {
  return omp_get_thread_num();
}

void FirstError::keep(std::size_t index) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (index < index_) {
    index_ = index;
    error_ = std::current_exception();
  }
}

std::string FirstError::message() const {
  if (!error_)
    return {};
  try {
    std::rethrow_exception(error_);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown failure";
  }
}

} // namespace Quorvel
