// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: type-erased contiguous storage.
#pragma once

#include "basalt/array_allocator.hpp"
#include "basalt/strong_ptr.hpp"

#include <cstddef>
#include <initializer_list>
#include <span>
#include <typeinfo>
#include <vector>

namespace Basalt {

// A block of elements of one type, shared between arrays, views and attributes.
class ChunkBase : public ReferenceBase {
public:
  virtual const std::type_info& elementType() const = 0;
  virtual std::size_t elementSize() const = 0;
  // Number of elements.
  virtual std::size_t size() const = 0;
  virtual void* rawData() = 0;
  virtual const void* rawData() const = 0;
  // A new chunk of the same element type and count holding a copy of the elements.
  virtual StrongPtr<ChunkBase> clone() const = 0;

  std::size_t byteSize() const { return size() * elementSize(); }
};

template <class T>
class Chunk final : public ChunkBase {
public:
  // count elements default-initialised: numbers and plain structs are left unwritten, for the
  // maker to fill (ArrayAllocator). Ask for a fill value where zeros or another value are needed.
  explicit Chunk(std::size_t count = 0) : values_(count) {}
  Chunk(std::size_t count, const T& fill) : values_(count, fill) {}
  Chunk(std::initializer_list<T> init) : values_(init) {}
  explicit Chunk(ArrayVector<T> values) : values_(std::move(values)) {}
  // Copies the values into storage of the chunk's own.
  explicit Chunk(std::span<const T> values) : values_(values.begin(), values.end()) {}
  explicit Chunk(const std::vector<T>& values) : Chunk(std::span<const T>(values)) {}

  const std::type_info& elementType() const override { return typeid(T); }
  std::size_t elementSize() const override { return sizeof(T); }
  std::size_t size() const override { return values_.size(); }
  void* rawData() override { return values_.data(); }
  const void* rawData() const override { return values_.data(); }
  StrongPtr<ChunkBase> clone() const override { return std::make_shared<Chunk<T>>(view()); }

  T* data() { return values_.data(); }
  const T* data() const { return values_.data(); }
  T& operator[](std::size_t i) { return values_[i]; }
  const T& operator[](std::size_t i) const { return values_[i]; }
  std::span<const T> view() const { return values_; }
  // A copy of the elements (for small values such as attributes).
  std::vector<T> values() const { return std::vector<T>(values_.begin(), values_.end()); }

private:
  ArrayVector<T> values_;
};

// Typed view of a chunk, empty when the chunk is missing or holds another element type.
template <class T>
StrongPtr<Chunk<T>> chunkCast(const StrongPtr<ChunkBase>& chunk) {
  if (!chunk || chunk->elementType() != typeid(T))
    return nullptr;
  return std::static_pointer_cast<Chunk<T>>(chunk);
}

} // namespace Basalt
