// Quorvel framework, memory core: type-erased contiguous storage.
#pragma once

#include "basalt/StrongPtr.hpp"

#include <cstddef>
#include <initializer_list>
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
  // Value-initialised elements (zeros for arithmetic types).
  explicit Chunk(std::size_t count = 0) : values_(count) {}
  Chunk(std::initializer_list<T> init) : values_(init) {}
  explicit Chunk(std::vector<T> values) : values_(std::move(values)) {}

  const std::type_info& elementType() const override { return typeid(T); }
  std::size_t elementSize() const override { return sizeof(T); }
  std::size_t size() const override { return values_.size(); }
  void* rawData() override { return values_.data(); }
  const void* rawData() const override { return values_.data(); }
  StrongPtr<ChunkBase> clone() const override { return std::make_shared<Chunk<T>>(values_); }

  T* data() { return values_.data(); }
  const T* data() const { return values_.data(); }
  T& operator[](std::size_t i) { return values_[i]; }
  const T& operator[](std::size_t i) const { return values_[i]; }
  const std::vector<T>& values() const { return values_; }

private:
  std::vector<T> values_;
};

// Typed view of a chunk, empty when the chunk is missing or holds another element type.
template <class T>
StrongPtr<Chunk<T>> chunkCast(const StrongPtr<ChunkBase>& chunk) {
  if (!chunk || chunk->elementType() != typeid(T))
    return nullptr;
  return std::static_pointer_cast<Chunk<T>>(chunk);
}

} // namespace Basalt
