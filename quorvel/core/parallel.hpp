// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the library's parallel loops, the one place where it opens OpenMP regions.
//
// Three shapes:
//   forEachItem     items of large, uneven work (fragments, file chunks, tiles), one at a time;
//   forEachPoint    points, dynamically, in chunks of a named grain;
//   inStaticBlocks  points in a fixed partition of [0, n) into contiguous blocks, one per thread.
// Thread counts are always passed in. No loop changes the runtime's settings (dynamic
// adjustment, active levels, the default thread count), so a host's own OpenMP use is left as it
// was. Work inside work is expressed by sharing a thread count (splitThreads): a loop over fewer
// items than threads gives each item's own loops the threads it leaves.
//
// No exception leaves a region. Each iteration's exception is caught; after the loop the one of
// the lowest index is rethrown, whatever the threads and their timing ("first error wins").
// Every iteration should write only its own slots, so that no result depends on the threads.
#pragma once

#include "basalt/array_allocator.hpp"
#include "basalt/parts.hpp"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quorvel {

// Chunk of the dynamic loops over points whose work is a few steps each (a transform, a cell).
inline constexpr std::size_t CheapPointGrain = 4096;
// Chunk of the dynamic loops over points whose work is a neighbourhood search, of uneven cost.
inline constexpr std::size_t SearchPointGrain = 256;

// The block [begin, end) of part `part` of [0, n) cut into `parts` contiguous blocks: n / parts
// items each, the first n % parts blocks one more.
inline std::pair<std::size_t, std::size_t> staticBlock(std::size_t n, std::size_t parts,
                                                       std::size_t part) {
  const std::size_t base = n / parts, extra = n % parts;
  const std::size_t begin = part * base + std::min(part, extra);
  return {begin, begin + base + (part < extra ? 1 : 0)};
}

// The runtime's thread count for a region opened here (the host's setting, as OMP_NUM_THREADS or
// omp_set_num_threads left it): the count of the io loops, which keep no thread back.
int allThreads();

// Makes the runtime's threads for a region of `threads` now, so that the loops after this find
// them made. A thread is made under the dynamic loader's lock, which a module being opened on
// another thread holds for as long as its libraries take to load: a loop's first region would
// otherwise wait for the whole loading.
void openThreads(int threads);

// How a thread count is shared between a loop over items and the loops inside each item.
struct ThreadSplit {
  int outer = 1; // threads of the loop over the items
  int inner = 1; // threads each item's own loops may use
};

// With at least as many items as threads, every thread takes whole items and the inner loops run
// on one. With fewer, the items share the threads: `count` outer threads of threads / count inner
// ones each where the runtime lets a region open inside a region, else the items one after the
// other, each with all the threads. threads below 1 count as 1.
ThreadSplit splitThreads(int threads, std::size_t count);

// The exception of the lowest index among those the iterations of a loop threw.
class FirstError {
public:
  static constexpr std::size_t None = std::numeric_limits<std::size_t>::max();

  // Keeps the exception being handled when index is lower than the one kept. Call it from a
  // catch block.
  void keep(std::size_t index) noexcept;
  bool empty() const { return index_ == None; }
  // The index of the kept exception; None when there is none.
  std::size_t index() const { return index_; }
  // The kept exception's text ("unknown failure" for one not derived from std::exception);
  // empty when there is none.
  std::string message() const;
  // Throws the kept exception, if any.
  void rethrow() const {
    if (error_)
      std::rethrow_exception(error_);
  }

private:
  std::mutex mutex_;
  std::size_t index_ = None;
  std::exception_ptr error_;
};

namespace loops {

// The number of the calling thread in the innermost region (0 outside any).
int workerIndex();

// The one loop shape: f(i, worker) for i in [0, n) on `threads` threads in dynamic chunks of
// `grain`, worker the thread's number in [0, threads); in the calling thread alone (worker 0)
// when one thread or one chunk would do. f must not throw.
template <class F>
void parallelFor(std::size_t n, int threads, std::size_t grain, const F& f) {
  if (threads <= 1 || n <= grain) {
    for (std::size_t i = 0; i < n; ++i)
      f(i, 0);
    return;
  }
  const auto count = static_cast<long long>(n);
  const auto chunk = static_cast<long long>(grain);
#pragma omp parallel for schedule(dynamic, chunk) num_threads(threads)
  for (long long i = 0; i < count; ++i)
    f(static_cast<std::size_t>(i), workerIndex());
}

// body(i), with what it throws kept in errors under i.
template <class Body>
void guarded(FirstError& errors, std::size_t i, const Body& body) noexcept {
  try {
    body(i);
  } catch (...) {
    errors.keep(i);
  }
}

} // namespace loops

// body(k) for k in [0, count) on `threads` threads, one item at a time in any order; what the
// items throw is kept in errors, for a caller that names the failing item in its report.
template <class Body>
void forEachItem(std::size_t count, int threads, FirstError& errors, Body&& body) {
  loops::parallelFor(count, threads, 1,
                     [&](std::size_t k, int) { loops::guarded(errors, k, body); });
}

// The same, then the exception of the lowest failing item, if any, is rethrown.
template <class Body>
void forEachItem(std::size_t count, int threads, Body&& body) {
  FirstError errors;
  forEachItem(count, threads, errors, body);
  errors.rethrow();
}

// forEachPoint with a state per thread: body(state, i), the state made by make() the first time
// a thread needs one (scratch buffers, or what threads may not share, such as a PROJ transform).
template <class Make, class Body>
void forEachPointWith(std::size_t n, int threads, std::size_t grain, const Make& make,
                      Body&& body) {
  std::vector<std::optional<decltype(make())>> states(
      static_cast<std::size_t>(std::max(1, threads)));
  FirstError errors;
  loops::parallelFor(n, threads, grain, [&](std::size_t i, int worker) {
    auto& state = states[static_cast<std::size_t>(worker)];
    loops::guarded(errors, i, [&](std::size_t) {
      if (!state)
        state.emplace(make());
      body(*state, i);
    });
  });
  errors.rethrow();
}

// forEachItem with a state per thread, as forEachPointWith makes it.
template <class Make, class Body>
void forEachItemWith(std::size_t count, int threads, const Make& make, Body&& body) {
  forEachPointWith(count, threads, 1, make, body);
}

// body(i) for i in [0, n) on `threads` threads, in dynamic chunks of grain (CheapPointGrain or
// SearchPointGrain); then the exception of the lowest failing point, if any, is rethrown.
template <class Body>
void forEachPoint(std::size_t n, int threads, std::size_t grain, Body&& body) {
  FirstError errors;
  loops::parallelFor(n, threads, grain,
                     [&](std::size_t i, int) { loops::guarded(errors, i, body); });
  errors.rethrow();
}

// body(begin, end) for the `threads` blocks of staticBlock(n, threads, part), each block on one
// thread, or body(begin, end, part) for a body that keeps a result per block; then the exception
// of the lowest failing block, if any, is rethrown. The partition depends on n and threads alone,
// never on how many threads the runtime really gives.
template <class Body>
void inStaticBlocks(std::size_t n, int threads, Body&& body) {
  const auto parts = static_cast<std::size_t>(std::max(1, threads));
  forEachItem(parts, threads, [&](std::size_t part) {
    const auto [begin, end] = staticBlock(n, parts, part);
    if constexpr (std::is_invocable_v<Body&, std::size_t, std::size_t, std::size_t>)
      body(begin, end, part);
    else
      body(begin, end);
  });
}

// body(state, begin, end) for contiguous blocks of [0, n), up to eight a thread and none under
// minBlock items, taken by the threads one at a time, the state made by make() as
// forEachItemWith makes it: where the blocks' costs differ, or a thread waits for a core, it then
// holds back one small block rather than a thread's share. The blocks depend on n and threads
// alone; what the body computes must not depend on them. Then the exception of the lowest
// failing block, if any, is rethrown.
template <class Make, class Body>
void inTakenBlocksWith(std::size_t n, int threads, std::size_t minBlock, const Make& make,
                       Body&& body) {
  const std::size_t parts =
      std::clamp<std::size_t>(n / std::max<std::size_t>(minBlock, 1), 1,
                              8 * static_cast<std::size_t>(std::max(threads, 1)));
  forEachItemWith(parts, threads, make, [&](auto& state, std::size_t part) {
    const auto [begin, end] = staticBlock(n, parts, part);
    body(state, begin, end);
  });
}

// The same without a state: body(begin, end).
template <class Body>
void inTakenBlocks(std::size_t n, int threads, std::size_t minBlock, Body&& body) {
  inTakenBlocksWith(
      n, threads, minBlock, [] { return 0; },
      [&](int, std::size_t begin, std::size_t end) { body(begin, end); });
}

// place(i, at) for every i in [0, n) that keep(i) accepts, `at` its rank among the accepted, each
// where one thread would put it; room(count) is told the count first (Basalt::packInBlocks, one
// block a thread). keep is asked twice per item, so it should be cheap.
template <class Keep, class Room, class Place>
std::size_t packInBlocks(std::size_t n, int threads, const Keep& keep, const Room& room,
                         const Place& place) {
  return Basalt::packInBlocks(n, static_cast<std::size_t>(std::max(1, threads)), threads, keep,
                              room, place);
}

// A value per cell folded from n items on `threads` threads: blocks of items (n * k / parts to
// n * (k + 1) / parts) fold into cells of their own, made and first written on the thread that
// folds into them (fold(cells, begin, end), every cell starting as `empty`); merge(into, from)
// then folds each later block's cells into the first's, in block order. With folds and merges
// that keep the earlier of equal values (std::min, std::max, counts), the cells are those of one
// thread, bit for bit, whatever the threads. Each block beyond the first costs a pass over every
// cell (its start and its merge), so there are no more blocks than items per two cells.
template <class T, class Fold, class Merge>
std::vector<T> foldInBlocks(std::size_t n, std::size_t cells, T empty, int threads,
                            const Fold& fold, const Merge& merge) {
  const std::size_t parts = std::clamp<std::size_t>(n / std::max<std::size_t>(2 * cells, 1), 1,
                                                    Basalt::blocksFor(n, threads));
  std::vector<T> out;
  std::vector<Basalt::ArrayVector<T>> others(parts - 1);
  Basalt::inParts(parts, threads, [&](std::size_t k, int) {
    T* into = nullptr;
    if (k == 0) {
      out.assign(cells, empty);
      into = out.data();
    } else {
      others[k - 1].assign(cells, empty);
      into = others[k - 1].data();
    }
    fold(into, n * k / parts, n * (k + 1) / parts);
  });
  if (parts > 1)
    inStaticBlocks(cells, threads, [&](std::size_t begin, std::size_t end) {
      for (const auto& from : others)
        for (std::size_t c = begin; c < end; ++c)
          merge(out[c], from[c]);
    });
  return out;
}

} // namespace Quorvel
