// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: where the storage of large arrays comes from.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace Basalt {

// Large arrays (a field of a whole cloud, a tree's index, an answer per point) are written soon
// after they are made and freed as a whole. They get their own pages straight from the system
// instead of the heap, for three reasons:
// - page-aligned pages of their own can be backed by transparent huge pages (madvise), so the
//   first write of 100 MB faults 50 times instead of 25,000 (on a virtual machine each 4 KiB fault
//   costs microseconds: a fifth to a half of a run on 1M points);
// - they go back to the system when freed (beyond KeptArrayBytes of them, kept for the next
//   arrays they hold, whose pages are then there already), so a long-lived process (Python, a
//   catalogue worker) does not keep the peak of its largest run;
// - fresh pages come zeroed from the kernel, so nothing is filled twice.
// Small blocks, where a system call would cost more than it saves, come from the heap.
// Every host (the CLI, Python, a program linking the library) gets the same behaviour: none of
// this depends on process-wide allocator settings.
constexpr std::size_t LargeArrayBytes = std::size_t{1} << 20;
constexpr std::size_t KeptArrayBytes = std::size_t{128} << 20;

// size bytes, at least 64-byte aligned (page-aligned when size >= LargeArrayBytes). Throws
// std::bad_alloc when the system refuses.
void* allocateArray(std::size_t size);
// Returns storage from allocateArray; size as given there.
void releaseArray(void* data, std::size_t size) noexcept;

// The standard allocator interface over allocateArray. Elements a container makes without a
// value (resize, a count-only constructor) are default-initialised, and those of numbers, points
// and plain structs are left as they are, not zero-filled, since the framework writes every
// element of an array it makes. Code that needs zeros asks for them with a value.
template <class T>
struct ArrayAllocator {
  using value_type = T;

  ArrayAllocator() noexcept = default;
  template <class U>
  ArrayAllocator(const ArrayAllocator<U>&) noexcept {}

  T* allocate(std::size_t n) {
    if (n > static_cast<std::size_t>(-1) / sizeof(T))
      throw std::bad_array_new_length();
    return static_cast<T*>(allocateArray(n * sizeof(T)));
  }
  void deallocate(T* p, std::size_t n) noexcept { releaseArray(p, n * sizeof(T)); }

  // An element of a type that is trivially copied and destroyed (numbers, points, plain structs)
  // is not constructed at all: it lives in the storage as it is. A default member initialiser
  // (a point's zeros) would otherwise write every element on the thread that makes the array,
  // paying the kernel's first touch of every page there, before the threads that fill the array
  // write it again.
  template <class U>
  void construct(U* p) noexcept(noexcept(::new (static_cast<void*>(p)) U)) {
    if constexpr (std::is_trivially_copy_constructible_v<U> && std::is_trivially_destructible_v<U>)
      (void)p;
    else
      ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }

  template <class U>
  bool operator==(const ArrayAllocator<U>&) const noexcept {
    return true;
  }
};

// A vector whose storage comes from allocateArray and whose count-only growth leaves numbers
// unwritten (see ArrayAllocator).
template <class T>
using ArrayVector = std::vector<T, ArrayAllocator<T>>;

} // namespace Basalt
