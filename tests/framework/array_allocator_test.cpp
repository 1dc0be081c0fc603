// SPDX-License-Identifier: BSD-3-Clause
// Tests of the storage of large arrays: alignment, values asked for, and pages given back.
#include "basalt/array_allocator.hpp"
#include "basalt/chunk.hpp"
#include "vantor/physical_space.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <numeric>
#include <sys/mman.h>
#include <unistd.h>

namespace {

bool sanitized() {
#if defined(__SANITIZE_ADDRESS__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  return true;
#else
  return false;
#endif
#else
  return false;
#endif
}

// Whether the page holding p is mapped in this process (mincore fails with ENOMEM otherwise).
bool mapped(const void* p) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  auto* start = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(p) / page * page);
  unsigned char resident = 0;
  return ::mincore(start, page, &resident) == 0 || errno != ENOMEM;
}

// Whether the page holding p is in memory: touched since it was mapped.
bool resident(const void* p) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  auto* start = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(p) / page * page);
  unsigned char in = 0;
  return ::mincore(start, page, &in) == 0 && (in & 1) != 0;
}

// Points (whose members start at zero when one is made alone) made in an array without a value
// are not written: the pages of a new large array of them stay untouched until the code that
// fills it writes them, on its own threads. Asked for with a value, they hold it.
TEST(ArrayAllocator, PointsMadeWithoutAValueAreLeftUnwritten) {
  using Point = Vantor::PhysicalSpace::point;
  const std::size_t n = (Basalt::LargeArrayBytes * 9 + 1000) / sizeof(Point);
  {
    // Longer than every kept block can be, so that its pages are new ones.
    const Basalt::Chunk<Point> made(Basalt::KeptArrayBytes / sizeof(Point) + n);
    for (const std::size_t i : {std::size_t{0}, made.size() / 2, made.size() - 1})
      EXPECT_TRUE(sanitized() || !resident(made.data() + i)) << i;
  }
  const Basalt::Chunk<Point> given(n, Point{1, 2, 3});
  for (const std::size_t i : {std::size_t{0}, n / 2, n - 1}) {
    EXPECT_EQ(given.data()[i].x, 1.0);
    EXPECT_EQ(given.data()[i].z, 3.0);
  }
}

TEST(ArrayAllocator, SmallBlocksAreCacheLineAlignedAndLargeOnesPageAligned) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  for (std::size_t size :
       {std::size_t{1}, std::size_t{100}, std::size_t{4097}, Basalt::LargeArrayBytes - 1,
        Basalt::LargeArrayBytes, Basalt::LargeArrayBytes * 5 + 3}) {
    void* p = Basalt::allocateArray(size);
    const auto at = reinterpret_cast<std::uintptr_t>(p);
    EXPECT_EQ(at % 64, 0u) << size;
    if (size >= Basalt::LargeArrayBytes && !sanitized()) {
      EXPECT_EQ(at % page, 0u) << size;
    }
    static_cast<unsigned char*>(p)[size - 1] = 1; // the last byte is ours to write
    Basalt::releaseArray(p, size);
  }
}

TEST(ArrayAllocator, LargeBlocksAreReusedOrGoBackToTheSystem) {
  if (sanitized())
    GTEST_SKIP() << "the sanitizer's heap holds every block";
  // More than the allocator keeps for reuse: back to the system at once.
  const std::size_t huge = Basalt::KeptArrayBytes + Basalt::LargeArrayBytes;
  auto* p = static_cast<unsigned char*>(Basalt::allocateArray(huge));
  p[0] = 1;
  p[huge - 1] = 2;
  EXPECT_TRUE(mapped(p));
  EXPECT_TRUE(mapped(p + huge - 1));
  Basalt::releaseArray(p, huge);
  EXPECT_FALSE(mapped(p));
  EXPECT_FALSE(mapped(p + huge - 1));
  // A block of a length kept is the next block of that length, its pages still there.
  const std::size_t size = Basalt::LargeArrayBytes * 8;
  void* first = Basalt::allocateArray(size);
  Basalt::releaseArray(first, size);
  void* second = Basalt::allocateArray(size);
  EXPECT_EQ(second, first);
  EXPECT_TRUE(mapped(static_cast<unsigned char*>(second) + size - 1));
  Basalt::releaseArray(second, size);
}

// A smaller array takes the head of the smallest kept block that holds it, its pages still there;
// the block's tail goes back to the system, and a larger kept block stays for its own length.
TEST(ArrayAllocator, SmallerArraysTakeTheSmallestKeptBlockThatHoldsThem) {
  if (sanitized())
    GTEST_SKIP() << "the sanitizer's heap holds every block";
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  const std::size_t mib = std::size_t{1} << 20;
  // Lengths that no other test here keeps.
  const std::size_t asked = 7 * mib + 2 * page, fits = asked + 3 * page, large = 13 * mib + page;
  auto* a = static_cast<unsigned char*>(Basalt::allocateArray(large));
  auto* b = static_cast<unsigned char*>(Basalt::allocateArray(fits));
  a[0] = b[0] = 1;
  b[fits - 1] = 2;
  Basalt::releaseArray(a, large);
  Basalt::releaseArray(b, fits);
  auto* c = static_cast<unsigned char*>(Basalt::allocateArray(asked));
  EXPECT_EQ(c, b);
  EXPECT_TRUE(resident(c));
  EXPECT_FALSE(mapped(b + fits - 1));
  c[asked - 1] = 3; // the last byte is ours to write
  Basalt::releaseArray(c, asked);
  void* d = Basalt::allocateArray(large);
  EXPECT_EQ(d, a);
  Basalt::releaseArray(d, large);
}

TEST(ArrayAllocator, ValuesAskedForAreThereAndCopiesAreEqual) {
  const std::size_t n = Basalt::LargeArrayBytes / sizeof(double) * 3 + 7;
  Basalt::Chunk<double> filled(n, 2.5);
  ASSERT_EQ(filled.size(), n);
  for (std::size_t i = 0; i < n; i += 997)
    EXPECT_EQ(filled[i], 2.5);
  EXPECT_EQ(filled[n - 1], 2.5);

  Basalt::Chunk<int> zeros(100, 0);
  EXPECT_EQ(std::accumulate(zeros.data(), zeros.data() + 100, 0), 0);

  Basalt::Chunk<std::uint32_t> counted(n);
  std::iota(counted.data(), counted.data() + n, 0u);
  const auto copy = Basalt::chunkCast<std::uint32_t>(counted.clone());
  ASSERT_TRUE(copy);
  EXPECT_NE(copy->data(), counted.data());
  EXPECT_TRUE(std::equal(counted.data(), counted.data() + n, copy->data()));

  // A vector's growth by count keeps what was written before it.
  Basalt::ArrayVector<std::uint16_t> grown(10, 7);
  grown.resize(Basalt::LargeArrayBytes);
  EXPECT_EQ(grown[9], 7);
  EXPECT_EQ(grown.size(), Basalt::LargeArrayBytes);
}

} // namespace
