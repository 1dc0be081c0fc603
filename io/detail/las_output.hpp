// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what every LAS writer shares: problems said without the file and named once, the file
// written beside its target, and the header completed from the records written.
#pragma once

#include "io/detail/las_header.hpp"

#include "basalt/replacing_file.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Quorvel::Las::detail {

// A problem of the file being written, said without the file: namingFile adds the path once,
// where the writing began, so the steps below need not carry it.
struct Problem : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// f(), a Problem it throws becoming the Error "path: problem".
template <class F>
decltype(auto) namingFile(const std::string& path, F&& f) {
  try {
    return f();
  } catch (const Problem& e) {
    throw Error(path + ": " + e.what());
  }
}

// An allocator that leaves new elements uninitialized, for buffers that are written whole before
// they are read: growing them costs no zero filling.
template <class T>
struct Uninitialized : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = Uninitialized<U>;
  };
  Uninitialized() = default;
  template <class U>
  Uninitialized(const Uninitialized<U>&) noexcept {}
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    if constexpr (sizeof...(Args) == 0)
      ::new (static_cast<void*>(p)) U;
    else
      ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
using Bytes = std::vector<std::uint8_t, Uninitialized<std::uint8_t>>;

// The file being written, put in the target's place only when complete (Basalt::ReplacingFile),
// its errors the LAS writer's.
class TemporaryFile {
public:
  explicit TemporaryFile(const std::string& path);
  void write(const std::uint8_t* data, std::size_t size);
  void writeAt(std::uint64_t at, const std::uint8_t* data, std::size_t size);
  void commit();

private:
  Basalt::ReplacingFile file_;
};

// What the records written tell the header: the integer bounds and the points per return.
struct Tally {
  std::array<std::int32_t, 3> lo{std::numeric_limits<std::int32_t>::max(),
                                 std::numeric_limits<std::int32_t>::max(),
                                 std::numeric_limits<std::int32_t>::max()};
  std::array<std::int32_t, 3> hi{std::numeric_limits<std::int32_t>::min(),
                                 std::numeric_limits<std::int32_t>::min(),
                                 std::numeric_limits<std::int32_t>::min()};
  std::array<std::uint64_t, 15> byReturn{};
  std::uint64_t count = 0;

  // One record's integer coordinates and return number (0 for none).
  void add(const std::int32_t xyz[3], int returnNumber) {
    for (int a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], xyz[a]);
      hi[a] = std::max(hi[a], xyz[a]);
    }
    if (returnNumber >= 1)
      ++byReturn[static_cast<std::size_t>(returnNumber - 1)];
    ++count;
  }
  // count records of length bytes, of the legacy (0 to 5) or the extended formats.
  void add(const std::uint8_t* records, std::size_t count, std::size_t length, bool extended);
  // The tallies of runs of records, joined.
  static Tally joined(const std::vector<Tally>& parts) {
    Tally out;
    for (const Tally& t : parts)
      out.add(t);
    return out;
  }
  // The records another tally counted (of other points), as if added here.
  void add(const Tally& other) {
    for (std::size_t a = 0; a < 3; ++a) {
      lo[a] = std::min(lo[a], other.lo[a]);
      hi[a] = std::max(hi[a], other.hi[a]);
    }
    for (std::size_t r = 0; r < byReturn.size(); ++r)
      byReturn[r] += other.byReturn[r];
    count += other.count;
  }
};

// Where the parts of a file written lie.
struct Places {
  std::size_t vlrCount = 0;
  std::uint64_t pointOffset = 0;
  std::size_t evlrCount = 0;
  std::uint64_t evlrOffset = 0; // 0 without EVLRs
  bool compressed = false;
};

// The header of h's version completed with the counts, bounds and places of the file.
RawHeader completed(const Header& h, const Places& places, const Tally& tally);

} // namespace Quorvel::Las::detail
