// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework: work cut into parts and done on several threads, for the framework's own
// steps that a caller gives a thread count (a tree's division). The library's loops over points
// and fragments have their own shapes, above the framework.
#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <vector>

#include <omp.h>

namespace Basalt {

// body(part, thread) for every part in [0, parts), on up to `threads` threads taking parts one at
// a time; `thread` is below threads, so a caller can keep working room per thread. With one
// thread, or one part, the parts run here in order. An exception leaves no part's thread: each is
// kept, and after the loop the one of the lowest part is rethrown, whatever the timing.
template <class Body>
void inParts(std::size_t parts, int threads, const Body& body) {
  if (threads <= 1 || parts <= 1) {
    for (std::size_t part = 0; part < parts; ++part)
      body(part, 0);
    return;
  }
  std::vector<std::exception_ptr> failed(parts);
#pragma omp parallel for num_threads(threads) schedule(dynamic, 1)
  for (std::size_t part = 0; part < parts; ++part) {
    try {
      body(part, omp_get_thread_num());
    } catch (...) {
      failed[part] = std::current_exception();
    }
  }
  for (const std::exception_ptr& failure : failed)
    if (failure)
      std::rethrow_exception(failure);
}

// Writes a zero byte into every page of [data, data + bytes), in contiguous blocks on `threads`
// threads. Fresh pages are cleared by the system on the thread that first writes them; a pass
// that writes an array in scattered order (a radix sort placing its items) would have them
// cleared by whichever thread reaches each first, and a huge page that several reach together
// by one of them while the others wait. Touched first in blocks, each thread clears its own.
// Only for storage whose contents are not yet defined.
inline void touchPages(void* data, std::size_t bytes, int threads) {
  constexpr std::size_t Page = 4096; // no system the library runs on has smaller pages
  auto* bytesAt = static_cast<unsigned char*>(data);
  const std::size_t pages = (bytes + Page - 1) / Page;
  const auto parts = static_cast<std::size_t>(std::max(threads, 1));
  inParts(parts, threads, [&](std::size_t k, int) {
    for (std::size_t page = pages * k / parts; page < pages * (k + 1) / parts; ++page)
      bytesAt[page * Page] = 0;
  });
}

// How many blocks to cut count items into for `threads` threads: one a thread, but no block of
// fewer than 65,536 items, which are not worth a thread of their own; at least one.
inline std::size_t blocksFor(std::size_t count, int threads) {
  constexpr std::size_t MinBlock = 65536;
  return std::clamp<std::size_t>(static_cast<std::size_t>(std::max(threads, 1)), 1,
                                 std::max<std::size_t>(count / MinBlock, 1));
}

// body(begin, end, thread) for `parts` contiguous blocks that cut [0, n) into near-equal runs
// (block k: n * k / parts to n * (k + 1) / parts), taken by inParts.
template <class Body>
void inBlocks(std::size_t n, std::size_t parts, int threads, const Body& body) {
  inParts(parts, threads,
          [&](std::size_t k, int thread) { body(n * k / parts, n * (k + 1) / parts, thread); });
}

// How many items of [0, n) keep(i) accepts before each of `parts` contiguous blocks (block k:
// n * k / parts to n * (k + 1) / parts), and in all last: parts + 1 numbers, each block counted
// on one of `threads` threads.
template <class Keep>
std::vector<std::size_t> countInBlocks(std::size_t n, std::size_t parts, int threads,
                                       const Keep& keep) {
  parts = std::max<std::size_t>(parts, 1);
  std::vector<std::size_t> from(parts + 1, 0);
  inParts(parts, threads, [&](std::size_t k, int) {
    std::size_t count = 0;
    for (std::size_t i = n * k / parts; i < n * (k + 1) / parts; ++i)
      count += keep(i) ? 1 : 0;
    from[k + 1] = count;
  });
  for (std::size_t k = 0; k < parts; ++k)
    from[k + 1] += from[k];
  return from;
}

// place(i, at) for every i in [0, n) that keep(i) accepts, block by block as countInBlocks
// counted them (`from`, its numbers), `at` the item's rank among the accepted: keep must give
// the answers it gave there.
template <class Keep, class Place>
void placeInBlocks(std::size_t n, const std::vector<std::size_t>& from, int threads,
                   const Keep& keep, const Place& place) {
  const std::size_t parts = from.size() - 1;
  inParts(parts, threads, [&](std::size_t k, int) {
    std::size_t at = from[k];
    for (std::size_t i = n * k / parts; i < n * (k + 1) / parts; ++i)
      if (keep(i))
        place(i, at++);
  });
}

// place(i, at) for every i in [0, n) that keep(i) accepts, `at` its rank among the accepted (0,
// 1, ...), so each lands where one thread would put it whatever the threads; room(count) is told
// how many there are before the first is placed, and the count is returned. Each of `parts`
// contiguous blocks counts what it keeps, then places its items from the count of the blocks
// before it: keep is asked twice per item, so it should be cheap and give the same answer.
template <class Keep, class Room, class Place>
std::size_t packInBlocks(std::size_t n, std::size_t parts, int threads, const Keep& keep,
                         const Room& room, const Place& place) {
  const std::vector<std::size_t> from = countInBlocks(n, parts, threads, keep);
  room(from.back());
  placeInBlocks(n, from, threads, keep, place);
  return from.back();
}

} // namespace Basalt
