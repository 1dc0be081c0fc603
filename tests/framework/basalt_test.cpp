// SPDX-License-Identifier: BSD-3-Clause
// Tests of the memory core: console lines, attributes, the cache, the text helpers, the radix
// sort and selection.
#include "basalt/attributes.hpp"
#include "basalt/cache.hpp"
#include "basalt/console.hpp"
#include "basalt/loader_progress.hpp"
#include "basalt/radix_sort.hpp"
#include "basalt/string_list.hpp"
#include "basalt/text.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(Console, WritesOneLinePerMessageWithDefaultNumberFormat) {
  CaptureStdout();
  Basalt::Console() << "radius: " << 0.001;
  Basalt::Console() << "maxradius: " << 250.0 << " flag: " << true << false;
  Basalt::Console() << "key: " << 1e-06 << " count: " << 42 << " " << std::string("text");
  Basalt::Console::write("... computing fragment 1 / 2            \r");
  EXPECT_EQ(GetCapturedStdout(), "radius: 0.001\n"
                                 "maxradius: 250 flag: 10\n"
                                 "key: 1e-06 count: 42 text\n"
                                 "... computing fragment 1 / 2            \r");
}

TEST(Console, LinesFromThreadsNeverInterleave) {
  CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 200; ++i)
        Basalt::Console() << "thread " << t << " line " << i << " end";
    });
  for (auto& thread : threads)
    thread.join();
  std::istringstream lines(GetCapturedStdout());
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    ++count;
    EXPECT_EQ(line.rfind("thread ", 0), 0u) << line;
    EXPECT_EQ(line.substr(line.size() - 4), " end") << line;
  }
  EXPECT_EQ(count, 800);
}

// A host chooses where lines go or drops them; a capture takes its own thread's lines only, and
// the sink is standard output again afterwards.
TEST(Console, SinksAndCapturesTakeTheLinesTheyAreGiven) {
  std::ostringstream elsewhere;
  CaptureStdout();
  EXPECT_EQ(Basalt::Console::setSink(&elsewhere), &std::cout);
  Basalt::Console() << "to the sink";
  EXPECT_EQ(Basalt::Console::setSink(nullptr), &elsewhere);
  Basalt::Console() << "dropped";
  Basalt::Console::write("dropped too\r");
  EXPECT_EQ(Basalt::Console::setSink(&elsewhere), nullptr);
  {
    Basalt::Console::Capture outer;
    Basalt::Console() << "outer " << 1;
    {
      Basalt::Console::Capture inner;
      Basalt::Console() << "inner";
      std::thread([] { Basalt::Console() << "other thread"; }).join();
      EXPECT_EQ(inner.text(), "inner\n");
    }
    Basalt::Console() << "outer " << 2;
    EXPECT_EQ(outer.text(), "outer 1\nouter 2\n");
  }
  Basalt::Console() << "after";
  Basalt::Console::setSink(&std::cout);
  Basalt::Console() << "standard output";
  EXPECT_EQ(elsewhere.str(), "to the sink\nother thread\nafter\n");
  EXPECT_EQ(GetCapturedStdout(), "standard output\n");
}

TEST(Console, FormatHandlesLongResults) {
  EXPECT_EQ(Basalt::format("[%.3f;%.3f] > %d", 1.0, 2.5, 7), "[1.000;2.500] > 7");
  EXPECT_EQ(Basalt::format("%f", 1e300).size(), 308u); // 301 digits, point and six decimals
  EXPECT_EQ(Basalt::format("%s", ""), "");
}

TEST(Attributes, SetReplaceRemoveAndCopy) {
  Basalt::Attributes attributes;
  EXPECT_EQ(attributes.getAttribute("CellSize"), nullptr);
  attributes.setAttribute(
      "CellSize", std::make_shared<Basalt::Chunk<double>>(std::initializer_list<double>{1.0}));
  attributes.setAttribute("Range", std::make_shared<Basalt::Chunk<int>>(2));
  attributes.setAttribute(
      "CellSize", std::make_shared<Basalt::Chunk<double>>(std::initializer_list<double>{2.0}));
  auto value = Basalt::chunkCast<double>(attributes.getAttribute("CellSize"));
  ASSERT_NE(value, nullptr);
  EXPECT_EQ((*value)[0], 2.0);
  EXPECT_EQ(Basalt::chunkCast<float>(attributes.getAttribute("CellSize")), nullptr);

  Basalt::Attributes copy = attributes;
  EXPECT_TRUE(attributes.removeAttribute("Range"));
  EXPECT_FALSE(attributes.removeAttribute("Range"));
  EXPECT_EQ(attributes.attributeNames(), std::vector<std::string>{"CellSize"});
  EXPECT_EQ(copy.attributeNames(), (std::vector<std::string>{"CellSize", "Range"}));
}

TEST(Cache, CountsOnlyLiveArrays) {
  Basalt::Cache cache("test");
  auto a = std::make_shared<Basalt::Chunk<double>>(10);
  {
    auto b = std::make_shared<Basalt::Chunk<float>>(4);
    cache.remember(a);
    cache.remember(b);
    cache.remember(nullptr);
    EXPECT_EQ(cache.entries(), 2u);
    EXPECT_EQ(cache.memoryUsage(), 10 * sizeof(double) + 4 * sizeof(float));
  }
  EXPECT_EQ(cache.entries(), 1u);
  EXPECT_EQ(cache.memoryUsage(), 10 * sizeof(double));
  EXPECT_EQ(Basalt::Cache::MemCache(), Basalt::Cache::MemCache());
  EXPECT_EQ(Basalt::Cache::MemCache()->name(), "MemCache");
}

TEST(Chunk, CloneCopiesAndKeepsType) {
  Basalt::Chunk<int> chunk{1, 2, 3};
  auto copy = Basalt::chunkCast<int>(chunk.clone());
  ASSERT_NE(copy, nullptr);
  chunk[0] = 9;
  EXPECT_EQ(copy->values(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(chunk.byteSize(), 3 * sizeof(int));
}

TEST(StringList, Contains) {
  Basalt::StringList list{"Positions", "Classification"};
  EXPECT_TRUE(list.contains("Positions"));
  EXPECT_FALSE(list.contains("Positions2"));
  list.push_back("Positions2");
  EXPECT_TRUE(list.contains("Positions2"));
  EXPECT_EQ(list.size(), 3u);
  EXPECT_TRUE(Basalt::StringList().empty());
}

TEST(LoaderProgress, ConsoleProgressOverwritesItsLine) {
  CaptureStdout();
  Basalt::ConsoleProgress progress;
  progress.progress(0.5, "loading");
  progress.progress(2.0, "loading");
  progress.progress(std::nan(""), "loading");
  EXPECT_EQ(GetCapturedStdout(), "loading:  50%\rloading: 100%\rloading:   0%\r");
}

TEST(Text, SplitKeepsEmptyPartsAndNulEndsText) {
  EXPECT_EQ(Basalt::splitAt("1>2;", ";,"), (std::vector<std::string_view>{"1>2", ""}));
  EXPECT_EQ(Basalt::splitAt(";,", ";,"), (std::vector<std::string_view>{"", "", ""}));
  EXPECT_EQ(Basalt::splitAt("", ";,"), (std::vector<std::string_view>{""}));
  EXPECT_EQ(Basalt::beforeNul(std::string("2:5\0;junk", 9)), "2:5");
}

TEST(Text, NumbersReadLikeTheCLibraryInTheCLocale) {
  EXPECT_EQ(Basalt::cAtof("  2.5xyz"), 2.5);
  EXPECT_EQ(Basalt::cAtof("-1e5"), -1e5);
  EXPECT_EQ(Basalt::cAtof("abc"), 0.0);
  EXPECT_EQ(Basalt::cAtof(std::string_view("7.25;", 4)), 7.25);
  EXPECT_EQ(Basalt::cAtoi(" 42 "), 42);
  EXPECT_EQ(Basalt::cAtoi("-3"), -3);
  EXPECT_EQ(Basalt::cAtoi("x"), 0);
  EXPECT_EQ(Basalt::cAtoi("99999999999999"), 2147483647);
  EXPECT_EQ(Basalt::cAtoi("-99999999999999"), -2147483647 - 1);
}

TEST(Text, DecimalPointSurvivesAHostLocaleWithDecimalComma) {
  const std::string previous = std::setlocale(LC_ALL, nullptr);
  if (!std::setlocale(LC_ALL, "de_DE.UTF-8"))
    GTEST_SKIP() << "locale de_DE.UTF-8 not available";
  const double value = Basalt::cAtof("1.5");
  std::setlocale(LC_ALL, previous.c_str());
  EXPECT_EQ(value, 1.5);
}

} // namespace

namespace {

// The radix sort is a stable sort by the bits it is given, on one thread or several: items with
// few distinct keys (long runs of equal ones, whose order must be kept) and odd counts of blocks.
TEST(RadixSort, IsAStableSortOfItsBitsOnAnyThreadCount) {
  std::mt19937_64 random(3);
  for (const std::size_t count : {std::size_t{1}, std::size_t{1000}, std::size_t{300001}}) {
    std::vector<std::pair<std::uint64_t, std::uint32_t>> items(count);
    for (std::size_t i = 0; i < count; ++i)
      items[i] = {random() % 5000 << 3 | random() % 8, static_cast<std::uint32_t>(i)};
    // Bits 3 .. 16 only: the lowest three are not looked at.
    const auto bits = [](const std::pair<std::uint64_t, std::uint32_t>& item) {
      return item.first >> 3 & 0x3fff;
    };
    auto expected = items;
    std::stable_sort(expected.begin(), expected.end(),
                     [&](const auto& a, const auto& b) { return bits(a) < bits(b); });
    for (const int threads : {1, 2, 5}) {
      for (const int width : {16, 5}) {
        auto sorted = items;
        std::vector<std::pair<std::uint64_t, std::uint32_t>> buffer;
        Basalt::radixSort(
            sorted.data(), sorted.size(), 3, 17, [](const auto& item) { return item.first; },
            buffer, width, threads);
        EXPECT_EQ(sorted, expected) << count << " items, " << threads << " threads, " << width;
      }
    }
  }
}

// The selection gives the key nth_element puts at each rank asked, on one thread or several:
// keys of few distinct values, a rank at either end, a key width that is no multiple of a digit.
TEST(RadixSelect, GivesTheKeyOfEveryRankOnAnyThreadCount) {
  std::mt19937_64 random(5);
  for (const std::size_t count : {std::size_t{1}, std::size_t{777}, std::size_t{300001}}) {
    std::vector<std::uint64_t> keys(count);
    for (std::uint64_t& key : keys)
      key = count > 1000 ? random() % (std::uint64_t{1} << 37) : random() % 8 << 34;
    auto sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    for (const std::size_t rank : {std::size_t{0}, count / 3, count - 1})
      for (const int threads : {1, 2, 5})
        EXPECT_EQ(Basalt::radixSelect(
                      count, rank, 37, [&](std::size_t i) { return keys[i]; }, threads),
                  sorted[rank])
            << count << " keys, rank " << rank << ", " << threads << " threads";
  }
}

// Floats keep their order in their ordered bits, and come back from them unchanged.
TEST(RadixSelect, OrderedBitsOfFloatsKeepTheirOrder) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::vector<float> ascending{-inf, -3.5f, -1e-30f, -0.0f, 0.0f, 1e-30f, 2.0f, inf};
  for (std::size_t k = 0; k < ascending.size(); ++k) {
    EXPECT_EQ(
        std::bit_cast<std::uint32_t>(Basalt::fromOrderedBits(Basalt::orderedBits(ascending[k]))),
        std::bit_cast<std::uint32_t>(ascending[k]));
    if (k > 0) {
      EXPECT_LT(Basalt::orderedBits(ascending[k - 1]), Basalt::orderedBits(ascending[k]));
    }
  }
}

} // namespace
