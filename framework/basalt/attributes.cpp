// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: named attributes.
#include "basalt/attributes.hpp"

namespace Basalt {

Attributes::Attributes(const Attributes& other) {
  std::lock_guard<std::mutex> lock(other.mutex_);
  values_ = other.values_;
}

Attributes& Attributes::operator=(const Attributes& other) {
  if (this != &other) {
    std::scoped_lock lock(mutex_, other.mutex_);
    values_ = other.values_;
  }
  return *this;
}

void Attributes::setAttribute(const std::string& name, const StrongPtr<ChunkBase>& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  values_[name] = value;
}

StrongPtr<ChunkBase> Attributes::getAttribute(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = values_.find(name);
  return it == values_.end() ? nullptr : it->second;
}

bool Attributes::removeAttribute(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  return values_.erase(name) > 0;
}

std::vector<std::string> Attributes::attributeNames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> names;
  names.reserve(values_.size());
  for (const auto& [name, value] : values_)
    names.push_back(name);
  return names;
}

} // namespace Basalt
