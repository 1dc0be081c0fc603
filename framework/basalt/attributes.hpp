// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: named attributes of framework objects.
#pragma once

#include "basalt/chunk.hpp"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Basalt {

// Named values attached to a field or an array, each held as a chunk. Safe to use from several
// threads; a new value under an existing name replaces the old one.
class Attributes {
public:
  Attributes() = default;
  Attributes(const Attributes& other);
  Attributes& operator=(const Attributes& other);

  void setAttribute(const std::string& name, const StrongPtr<ChunkBase>& value);
  // Empty when there is no attribute of that name.
  StrongPtr<ChunkBase> getAttribute(const std::string& name) const;
  bool removeAttribute(const std::string& name);
  // Names in alphabetical order.
  std::vector<std::string> attributeNames() const;

private:
  mutable std::mutex mutex_;
  std::map<std::string, StrongPtr<ChunkBase>> values_;
};

} // namespace Basalt
