// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: the memory cache that keeps track of fragment arrays.
#pragma once

#include "basalt/chunk.hpp"

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace Basalt {

// Every array that is attached to a field is registered with a cache. The cache does not own
// the arrays (their creators do); it knows which of them are alive and how much memory they
// take, so a host can report the memory a run holds.
class Cache {
public:
  explicit Cache(std::string name) : name_(std::move(name)) {}
  Cache(const Cache&) = delete;
  Cache& operator=(const Cache&) = delete;

  // The process-wide in-memory cache, used by default for every attached array.
  static const StrongPtr<Cache>& MemCache();

  const std::string& name() const { return name_; }
  void remember(const StrongPtr<ChunkBase>& chunk);
  // Number of registered arrays that are still alive.
  std::size_t entries() const;
  // Bytes held by the registered arrays that are still alive.
  std::size_t memoryUsage() const;

private:
  void pruneLocked() const;

  std::string name_;
  mutable std::mutex mutex_;
  mutable std::vector<WeakPtr<ChunkBase>> chunks_;
};

} // namespace Basalt
