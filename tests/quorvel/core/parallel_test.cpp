// SPDX-License-Identifier: BSD-3-Clause
// Tests of the parallel loops: coverage, the static partition, the first-error rule, the thread
// split and the runtime's settings left as they were, each on 1, 2, 3 and 7 threads.
#include "quorvel/core/core.hpp"
#include "quorvel/core/parallel.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <omp.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace Quorvel;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr int ThreadCounts[] = {1, 2, 3, 7};
constexpr std::size_t Sizes[] = {0, 1, 5, 1000, 10007};

// How often each index of [0, n) was visited by loop(n, visit).
template <class Loop>
std::vector<int> visits(std::size_t n, const Loop& loop) {
  std::vector<std::atomic<int>> count(n);
  loop(n, [&](std::size_t i) { count[i].fetch_add(1); });
  std::vector<int> out(n);
  for (std::size_t i = 0; i < n; ++i)
    out[i] = count[i].load();
  return out;
}

TEST(ParallelLoops, EveryIndexIsVisitedOnce) {
  for (int threads : ThreadCounts)
    for (std::size_t n : Sizes) {
      const std::vector<int> once(n, 1);
      const auto where = std::to_string(threads) + " threads, n " + std::to_string(n);
      EXPECT_EQ(visits(n, [&](std::size_t m, auto f) { forEachItem(m, threads, f); }), once)
          << where;
      for (std::size_t grain : {CheapPointGrain, SearchPointGrain, std::size_t{1}})
        EXPECT_EQ(visits(n, [&](std::size_t m, auto f) { forEachPoint(m, threads, grain, f); }),
                  once)
            << where << ", grain " << grain;
      EXPECT_EQ(visits(n,
                       [&](std::size_t m, auto f) {
                         inStaticBlocks(m, threads, [&](std::size_t b, std::size_t e) {
                           for (std::size_t i = b; i < e; ++i)
                             f(i);
                         });
                       }),
                once)
          << where;
      // A state per thread: each state is used by one thread at a time and made at most once
      // per thread.
      std::atomic<int> made{0};
      EXPECT_EQ(visits(n,
                       [&](std::size_t m, auto f) {
                         forEachPointWith(
                             m, threads, SearchPointGrain,
                             [&] {
                               ++made;
                               return std::vector<int>();
                             },
                             [&](std::vector<int>& scratch, std::size_t i) {
                               scratch.push_back(1);
                               f(i);
                             });
                       }),
                once)
          << where;
      EXPECT_LE(made.load(), threads) << where;
    }
}

TEST(ParallelLoops, StaticBlocksAreContiguousAndDependOnNAndThreadsAlone) {
  for (int threads : ThreadCounts)
    for (std::size_t n : Sizes) {
      const auto blocks = [&] {
        std::mutex mutex;
        std::vector<std::pair<std::size_t, std::size_t>> seen;
        inStaticBlocks(n, threads, [&](std::size_t b, std::size_t e) {
          const std::lock_guard<std::mutex> lock(mutex);
          seen.emplace_back(b, e);
        });
        std::sort(seen.begin(), seen.end());
        return seen;
      };
      // The expected partition, written out: threads blocks in order, the first n % threads of
      // them one longer than n / threads.
      std::vector<std::pair<std::size_t, std::size_t>> expected;
      std::size_t at = 0;
      const auto parts = static_cast<std::size_t>(threads);
      for (std::size_t t = 0; t < parts; ++t) {
        const std::size_t length = n / parts + (t < n % parts ? 1 : 0);
        expected.emplace_back(at, at + length);
        at += length;
      }
      ASSERT_EQ(at, n);
      EXPECT_EQ(blocks(), expected) << threads << " threads, n " << n;
      EXPECT_EQ(blocks(), expected) << threads << " threads, n " << n << ", again";
    }
}

TEST(ParallelLoops, TakenBlocksCoverEveryIndexOnceAndKeepTheirMinimum) {
  for (int threads : ThreadCounts)
    for (std::size_t n : Sizes)
      for (std::size_t minimum : {std::size_t(1), std::size_t(7), std::size_t(1000)}) {
        std::mutex mutex;
        std::vector<std::pair<std::size_t, std::size_t>> seen;
        inTakenBlocks(n, threads, minimum, [&](std::size_t b, std::size_t e) {
          const std::lock_guard<std::mutex> lock(mutex);
          seen.emplace_back(b, e);
        });
        std::sort(seen.begin(), seen.end());
        const std::string where = std::to_string(threads) + " threads, n " + std::to_string(n) +
                                  ", at least " + std::to_string(minimum);
        ASSERT_FALSE(seen.empty()) << where;
        EXPECT_LE(seen.size(), 8 * static_cast<std::size_t>(threads)) << where;
        std::size_t at = 0;
        for (const auto& [b, e] : seen) {
          EXPECT_EQ(b, at) << where;
          EXPECT_TRUE(seen.size() == 1 || e - b >= minimum) << where;
          at = e;
        }
        EXPECT_EQ(at, n) << where;
      }
}

TEST(ParallelLoops, PackedItemsLandWhereOneThreadPutsThem) {
  // Kept items in runs and gaps of uneven length, so that blocks keep different counts.
  const auto keep = [](std::size_t i) { return i % 3 == 0 || i % 7 == 5 || (i / 100) % 4 == 1; };
  for (int threads : ThreadCounts)
    for (std::size_t n : Sizes) {
      std::vector<std::size_t> expected;
      for (std::size_t i = 0; i < n; ++i)
        if (keep(i))
          expected.push_back(i);
      std::vector<std::size_t> placed;
      const std::size_t count = packInBlocks(
          n, threads, keep, [&](std::size_t room) { placed.assign(room, n); },
          [&](std::size_t i, std::size_t at) {
            ASSERT_LT(at, placed.size());
            placed[at] = i;
          });
      EXPECT_EQ(count, expected.size()) << threads << " threads, n " << n;
      EXPECT_EQ(placed, expected) << threads << " threads, n " << n;
    }
}

TEST(ParallelLoops, TheLowestFailingIndexWins) {
  const std::vector<std::size_t> failing{9000, 17, 500, 18};
  const auto body = [&](std::size_t i) {
    if (std::find(failing.begin(), failing.end(), i) != failing.end())
      throw std::runtime_error("point " + std::to_string(i));
  };
  const auto message = [](const auto& loop) {
    try {
      loop();
    } catch (const std::runtime_error& e) {
      return std::string(e.what());
    }
    return std::string("nothing thrown");
  };
  for (int threads : ThreadCounts)
    for (int repeat = 0; repeat < 5; ++repeat) {
      EXPECT_EQ(message([&] { forEachPoint(10007, threads, 1, body); }), "point 17") << threads;
      EXPECT_EQ(message([&] { forEachPoint(10007, threads, SearchPointGrain, body); }), "point 17")
          << threads;
      EXPECT_EQ(message([&] { forEachItem(10007, threads, body); }), "point 17") << threads;
      // The lowest failing block is the one of the lowest index: its first failing point.
      EXPECT_EQ(message([&] {
                  inStaticBlocks(10007, threads, [&](std::size_t b, std::size_t e) {
                    for (std::size_t i = b; i < e; ++i)
                      body(i);
                  });
                }),
                "point 17")
          << threads;
      FirstError errors;
      forEachItem(10007, threads, errors, body);
      EXPECT_EQ(errors.index(), 17u) << threads;
      EXPECT_EQ(errors.message(), "point 17") << threads;
    }
  FirstError none;
  forEachItem(100, 3, none, [](std::size_t) {});
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.index(), FirstError::None);
  EXPECT_EQ(none.message(), "");
  EXPECT_NO_THROW(none.rethrow());
  FirstError odd;
  forEachItem(3, 2, odd, [](std::size_t i) {
    if (i == 1)
      throw 42; // not a std::exception
  });
  EXPECT_EQ(odd.message(), "unknown failure");
}

TEST(ParallelLoops, FragmentFailuresAreReportedInFragmentOrder) {
  for (int threads : ThreadCounts) {
    std::string collected;
    Messages log("Test: ", &collected);
    std::vector<std::atomic<int>> done(9);
    CaptureStdout();
    forEachFragment(9, threads, log, [&](std::size_t k) {
      if (k % 4 == 3)
        throw std::runtime_error("fragment " + std::to_string(k));
      if (k == 8)
        throw 1;
      done[k].fetch_add(1);
    });
    GetCapturedStdout();
    EXPECT_EQ(collected, "ERROR: fragment 3ERROR: fragment 7ERROR: unknown failure") << threads;
    for (int k : {0, 1, 2, 4, 5, 6}) // the others went on
      EXPECT_EQ(done[static_cast<std::size_t>(k)].load(), 1) << threads << " " << k;
  }
}

TEST(ParallelLoops, FewFragmentsShareTheirThreadsWithTheirPoints) {
  EXPECT_EQ(splitThreads(4, 10).outer, 4);
  EXPECT_EQ(splitThreads(4, 10).inner, 1);
  EXPECT_EQ(splitThreads(4, 4).inner, 1);
  EXPECT_EQ(splitThreads(7, 1).outer, 1);
  EXPECT_EQ(splitThreads(7, 1).inner, 7);
  EXPECT_EQ(splitThreads(7, 0).inner, 7);
  EXPECT_EQ(splitThreads(0, 5).outer, 1); // below 1 counts as 1
  EXPECT_EQ(splitThreads(-3, 0).inner, 1);
  // Two fragments of seven threads: three each inside where a region may open in a region,
  // else the fragments one after the other with all seven. Never more than seven in all.
  const ThreadSplit two = splitThreads(7, 2);
  EXPECT_TRUE((two.outer == 2 && two.inner == 3) || (two.outer == 1 && two.inner == 7))
      << two.outer << " x " << two.inner;
  for (int threads : ThreadCounts) {
    Messages log("Test: ");
    std::vector<int> inner(3, 0);
    std::vector<std::vector<int>> seen(3);
    forEachFragment(3, threads, log, [&](std::size_t k, int points) {
      inner[k] = points;
      seen[k] = visits(
          5000, [&](std::size_t m, auto f) { forEachPoint(m, points, SearchPointGrain, f); });
    });
    const ThreadSplit split = splitThreads(threads, 3);
    EXPECT_EQ(inner, std::vector<int>(3, split.inner)) << threads;
    EXPECT_LE(split.outer * split.inner, threads);
    for (const auto& s : seen)
      EXPECT_EQ(s, std::vector<int>(5000, 1)) << threads;
  }
}

TEST(ParallelLoops, TheRuntimeSettingsStayAsTheyWere) {
  const int dynamic = omp_get_dynamic(), levels = omp_get_max_active_levels(),
            threads = omp_get_max_threads();
  Messages log("Test: ");
  for (int t : ThreadCounts) {
    forEachFragment(2, t, log, [&](std::size_t, int inner) {
      inStaticBlocks(1000, inner, [](std::size_t, std::size_t) {});
      forEachPoint(1000, inner, 1, [](std::size_t) {});
    });
    forEachItem(10, t, [](std::size_t) {});
  }
  EXPECT_EQ(omp_get_dynamic(), dynamic);
  EXPECT_EQ(omp_get_max_active_levels(), levels);
  EXPECT_EQ(omp_get_max_threads(), threads);
}

} // namespace
