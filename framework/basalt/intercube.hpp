// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: typed interfaces attached to objects.
#pragma once

#include "basalt/strong_ptr.hpp"

#include <map>
#include <mutex>
#include <typeindex>

namespace Basalt {

// Base of everything that can be attached to an Intercube, one instance per interface type.
class InterfaceBase : public ReferenceBase {};

// Holds at most one interface object per type, such as a value range attached to an array.
class Intercube {
public:
  Intercube() = default;
  Intercube(const Intercube&) = delete;
  Intercube& operator=(const Intercube&) = delete;

  template <class I>
  void addInterface(const StrongPtr<I>& value) {
    std::lock_guard<std::mutex> lock(interfaceMutex_);
    interfaces_[std::type_index(typeid(I))] = value;
  }
  // Empty when no interface of that type is attached.
  template <class I>
  StrongPtr<I> getInterface() const {
    std::lock_guard<std::mutex> lock(interfaceMutex_);
    auto it = interfaces_.find(std::type_index(typeid(I)));
    return it == interfaces_.end() ? nullptr : std::static_pointer_cast<I>(it->second);
  }
  template <class I>
  void removeInterface() {
    std::lock_guard<std::mutex> lock(interfaceMutex_);
    interfaces_.erase(std::type_index(typeid(I)));
  }

private:
  mutable std::mutex interfaceMutex_;
  std::map<std::type_index, StrongPtr<InterfaceBase>> interfaces_;
};

} // namespace Basalt
