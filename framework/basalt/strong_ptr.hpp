// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: reference-counted ownership.
#pragma once

#include <memory>

namespace Basalt {

// Shared ownership of framework objects. An empty pointer and a failed typed cast both mean
// "missing" everywhere in the framework and the library.
template <class T>
using StrongPtr = std::shared_ptr<T>;

// Non-owning back reference; lock() gives an empty StrongPtr once the object is gone.
template <class T>
using WeakPtr = std::weak_ptr<T>;

// Common polymorphic base of objects that are held by StrongPtr and cast at run time.
class ReferenceBase {
public:
  ReferenceBase() = default;
  ReferenceBase(const ReferenceBase&) = default;
  ReferenceBase& operator=(const ReferenceBase&) = default;
  virtual ~ReferenceBase() = default;
};

} // namespace Basalt
