// Quorvel framework, memory core: type-erased contiguous storage.
#pragma once

#include "basalt/ArrayAllocator.hpp"
#include "basalt/StrongPtr.hpp"

#include <cstddef>
#include <initializer_list>
#include <memory>
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
  // Whether the elements belong to another owner (a buffer of another library, e.g. a numpy
  // array) that the chunk only keeps alive: results are never written into them.
  virtual bool borrowed() const = 0;

  std::size_t byteSize() const { return size() * elementSize(); }
};

template <class T>
class Chunk final : public ChunkBase {
public:
  // count elements default-initialised: numbers and plain structs are left unwritten, for the
  // maker to fill (ArrayAllocator). Ask for a fill value where zeros or another value are needed.
  explicit Chunk(std::size_t count = 0) : values_(count) { own(); }
  Chunk(std::size_t count, const T& fill) : values_(count, fill) { own(); }
  Chunk(std::initializer_list<T> init) : values_(init) { own(); }
  explicit Chunk(ArrayVector<T> values) : values_(std::move(values)) { own(); }
  // Copies the values into storage of the chunk's own.
  explicit Chunk(std::span<const T> values) : values_(values.begin(), values.end()) { own(); }
  explicit Chunk(const std::vector<T>& values) : Chunk(std::span<const T>(values)) {}
  // Borrows count elements at data without copying them; keeper keeps their owner alive for as
  // long as the chunk lives.
  Chunk(T* data, std::size_t count, std::shared_ptr<const void> keeper)
      : data_(data), size_(count), keeper_(std::move(keeper)) {}

  Chunk(const Chunk&) = delete;
  Chunk& operator=(const Chunk&) = delete;

  const std::type_info& elementType() const override { return typeid(T); }
  std::size_t elementSize() const override { return sizeof(T); }
  std::size_t size() const override { return size_; }
  void* rawData() override { return data_; }
  const void* rawData() const override { return data_; }
  StrongPtr<ChunkBase> clone() const override { return std::make_shared<Chunk<T>>(view()); }
  bool borrowed() const override { return keeper_ != nullptr; }

  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](std::size_t i) { return data_[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  std::span<const T> view() const { return {data_, size_}; }
  // A copy of the elements (for small values such as attributes).
  std::vector<T> values() const { return std::vector<T>(data_, data_ + size_); }

private:
  void own() {
    data_ = values_.data();
    size_ = values_.size();
  }

  ArrayVector<T> values_;
  T* data_ = nullptr;
  std::size_t size_ = 0;
  std::shared_ptr<const void> keeper_;
};

// Typed view of a chunk, empty when the chunk is missing or holds another element type.
template <class T>
StrongPtr<Chunk<T>> chunkCast(const StrongPtr<ChunkBase>& chunk) {
  if (!chunk || chunk->elementType() != typeid(T))
    return nullptr;
  return std::static_pointer_cast<Chunk<T>>(chunk);
}

} // namespace Basalt
