// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: large arrays in pages of their own.
#include "basalt/array_allocator.hpp"

#include <cstdint>
#include <mutex>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Basalt {

namespace {

// Transparent huge pages are 2 MiB on the systems the library runs on; a mapping aligned to
// them can be backed by them from its first byte (its tail, less than one, by normal pages).
constexpr std::size_t HugePage = std::size_t{2} << 20;
constexpr std::align_val_t SmallAlignment{64};

std::size_t roundUp(std::size_t size, std::size_t unit) {
  return (size + unit - 1) / unit * unit;
}

std::size_t pageSize() {
  static const std::size_t size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

// A mapping of `size` bytes (a multiple of the page size) aligned to HugePage: one more huge page
// is mapped and the unaligned head and tail are given back.
void* mapAligned(std::size_t size) {
  const std::size_t span = size + HugePage;
  void* raw = ::mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED)
    throw std::bad_alloc();
  const auto start = reinterpret_cast<std::uintptr_t>(raw);
  const std::uintptr_t aligned = roundUp(start, HugePage);
  if (aligned > start)
    ::munmap(raw, aligned - start);
  const std::uintptr_t end = aligned + size;
  if (start + span > end)
    ::munmap(reinterpret_cast<void*>(end), start + span - end);
  return reinterpret_cast<void*>(aligned);
}

// Under AddressSanitizer every block comes from the heap, where the sanitizer sees reads past its
// end; pages mapped here would hide them.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool Sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool Sanitized = true;
#else
constexpr bool Sanitized = false;
#endif
#else
constexpr bool Sanitized = false;
#endif

bool small(std::size_t size) {
  return Sanitized || size < LargeArrayBytes;
}

// Freed mappings kept for the next arrays, up to KeptArrayBytes in all: a process that makes
// arrays of one cloud's size again and again (a Python loop, a catalogue worker), or an algorithm
// whose later steps need smaller arrays than its earlier ones freed, finds their pages already
// there instead of having the kernel clear new ones; anything beyond goes back to the system at
// once. An array takes the smallest kept mapping that holds it (the latest kept of equal ones),
// its tail beyond the array given back.
class Kept {
public:
  void* take(std::size_t length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    auto best = blocks_.end();
    for (auto it = blocks_.begin(); it != blocks_.end(); ++it)
      if (it->second >= length && (best == blocks_.end() || it->second <= best->second))
        best = it;
    if (best == blocks_.end())
      return nullptr;
    auto* data = static_cast<std::uint8_t*>(best->first);
    if (best->second > length)
      ::munmap(data + length, best->second - length);
    bytes_ -= best->second;
    blocks_.erase(best);
    return data;
  }
  bool keep(void* data, std::size_t length) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (bytes_ + length > KeptArrayBytes)
      return false;
    blocks_.emplace_back(data, length);
    bytes_ += length;
    return true;
  }

private:
  std::mutex mutex_;
  std::vector<std::pair<void*, std::size_t>> blocks_;
  std::size_t bytes_ = 0;
};

// Never destroyed: arrays may be released while the process ends.
Kept& kept() {
  static Kept* const instance = new Kept;
  return *instance;
}

} // namespace

void* allocateArray(std::size_t size) {
  if (small(size))
    return ::operator new(size == 0 ? 1 : size, SmallAlignment);
  const std::size_t length = roundUp(size, pageSize());
  if (void* data = kept().take(length))
    return data;
  void* data = mapAligned(length);
  // Advice only: where huge pages are off (or the call is unknown) the pages stay normal ones.
  ::madvise(data, length, MADV_HUGEPAGE);
  return data;
}

void releaseArray(void* data, std::size_t size) noexcept {
  if (!data)
    return;
  if (small(size))
    ::operator delete(data, SmallAlignment);
  else if (const std::size_t length = roundUp(size, pageSize()); !kept().keep(data, length))
    ::munmap(data, length);
}

} // namespace Basalt
