// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: the memory cache.
#include "basalt/cache.hpp"

#include <algorithm>

namespace Basalt {

const StrongPtr<Cache>& Cache::MemCache() {
  static const StrongPtr<Cache> cache = std::make_shared<Cache>("MemCache");
  return cache;
}

void Cache::remember(const StrongPtr<ChunkBase>& chunk) {
  if (!chunk)
    return;
  std::lock_guard<std::mutex> lock(mutex_);
  // Prune now and then so that a long run does not accumulate dead entries.
  if (chunks_.size() >= 1024 && (chunks_.size() & (chunks_.size() - 1)) == 0)
    pruneLocked();
  chunks_.push_back(chunk);
}

void Cache::pruneLocked() const {
  std::erase_if(chunks_, [](const WeakPtr<ChunkBase>& c) { return c.expired(); });
}

std::size_t Cache::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  pruneLocked();
  return chunks_.size();
}

std::size_t Cache::memoryUsage() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::size_t bytes = 0;
  for (const auto& weak : chunks_)
    if (auto chunk = weak.lock())
      bytes += chunk->byteSize();
  return bytes;
}

} // namespace Basalt
