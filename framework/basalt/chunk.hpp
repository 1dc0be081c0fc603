// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, memory core: type-erased contiguous storage.
#pragma once

#include "basalt/array_allocator.hpp"
#include "basalt/strong_ptr.hpp"

#include <atomic>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <span>
#include <typeinfo>
#include <vector>

namespace Basalt {

// Keeps a block of elements alive that a chunk reads without owning it: a host's buffer (a
// numpy array) or storage handed out to a reader outside the framework.
using BlockKeeper = std::shared_ptr<const void>;

// A block of elements of one type, shared between arrays, views and attributes.
//
// A chunk either owns its elements or reads a block it does not own ("outside"): memory lent by
// a host, or its own storage once handed to an outside reader (share()). Reading never copies.
// Every access that can write (the non-const data(), rawData() and operator[]) first
// gives the chunk storage of its own, a copy of the block, so the lender's values never change
// ("copy on first write"). The block stays alive as long as the chunk, so a pointer read before
// that first write stays valid (it sees the values of before). Writable accesses from several
// threads at once are safe; a reader must not fetch the element pointer of a chunk while another
// thread makes its first writable access to the same chunk (fetch pointers before such loops).
class ChunkBase : public ReferenceBase {
public:
  virtual const std::type_info& elementType() const = 0;
  virtual std::size_t elementSize() const = 0;
  // Number of elements.
  virtual std::size_t size() const = 0;
  // The elements for writing: storage of the chunk's own, copied from an outside block first.
  virtual void* rawData() = 0;
  // The elements for reading; never copies.
  virtual const void* rawData() const = 0;
  // A new chunk of the same element type and count holding a copy of the elements.
  virtual StrongPtr<ChunkBase> clone() const = 0;
  // Whether the elements are a block the chunk does not own (the next write copies them).
  virtual bool readsOutsideBlock() const = 0;
  // Hands the current elements to a reader outside the framework: the returned keeper holds
  // them unchanged for as long as the reader keeps it, since the chunk's next write copies.
  virtual BlockKeeper share() = 0;

  std::size_t byteSize() const { return size() * elementSize(); }
};

template <class T>
class Chunk final : public ChunkBase {
public:
  // count elements default-initialised: numbers and plain structs are left unwritten, for the
  // maker to fill (ArrayAllocator). Ask for a fill value where zeros or another value are needed.
  explicit Chunk(std::size_t count = 0) : values_(count) { adoptValues(); }
  Chunk(std::size_t count, const T& fill) : values_(count, fill) { adoptValues(); }
  Chunk(std::initializer_list<T> init) : values_(init) { adoptValues(); }
  explicit Chunk(ArrayVector<T> values) : values_(std::move(values)) { adoptValues(); }
  // Copies the values into storage of the chunk's own.
  explicit Chunk(std::span<const T> values) : values_(values.begin(), values.end()) {
    adoptValues();
  }
  explicit Chunk(const std::vector<T>& values) : Chunk(std::span<const T>(values)) {}
  // Reads count elements at data without copying them; keeper keeps them alive (it is released
  // with the chunk). The first writable access copies them.
  Chunk(const T* data, std::size_t count, BlockKeeper keeper)
      : data_(const_cast<T*>(data)), size_(count), keeper_(std::move(keeper)), outside_(true) {}

  const std::type_info& elementType() const override { return typeid(T); }
  std::size_t elementSize() const override { return sizeof(T); }
  std::size_t size() const override { return size_; }
  void* rawData() override { return data(); }
  const void* rawData() const override { return data_; }
  StrongPtr<ChunkBase> clone() const override { return std::make_shared<Chunk<T>>(view()); }
  bool readsOutsideBlock() const override { return outside_.load(std::memory_order_acquire); }

  BlockKeeper share() override {
    const std::lock_guard lock(owning_);
    if (!outside_.load(std::memory_order_relaxed)) {
      // Moving the vector keeps its buffer where it is: data_ stays valid.
      keeper_ = std::make_shared<const ArrayVector<T>>(std::move(values_));
      values_ = ArrayVector<T>();
      outside_.store(true, std::memory_order_release);
    }
    return keeper_;
  }

  T* data() {
    if (outside_.load(std::memory_order_acquire)) [[unlikely]]
      own();
    return data_;
  }
  const T* data() const { return data_; }
  T& operator[](std::size_t i) { return data()[i]; }
  const T& operator[](std::size_t i) const { return data_[i]; }
  std::span<const T> view() const { return {data_, size_}; }
  // A copy of the elements (for small values such as attributes).
  std::vector<T> values() const { return std::vector<T>(data_, data_ + size_); }

private:
  void adoptValues() {
    data_ = values_.data();
    size_ = values_.size();
  }

  // Copies an outside block into storage of the chunk's own; the block's keeper is kept, so
  // pointers read earlier stay valid.
  void own() {
    const std::lock_guard lock(owning_);
    if (!outside_.load(std::memory_order_relaxed))
      return;
    values_ = ArrayVector<T>(data_, data_ + size_);
    data_ = values_.data();
    outside_.store(false, std::memory_order_release);
  }

  ArrayVector<T> values_;
  // The elements: values_'s or an outside block's.
  T* data_ = nullptr;
  std::size_t size_ = 0;
  // Keeps the last outside block alive.
  BlockKeeper keeper_;
  std::atomic<bool> outside_{false};
  std::mutex owning_;
};

// Typed view of a chunk, empty when the chunk is missing or holds another element type.
template <class T>
StrongPtr<Chunk<T>> chunkCast(const StrongPtr<ChunkBase>& chunk) {
  if (!chunk || chunk->elementType() != typeid(T))
    return nullptr;
  return std::static_pointer_cast<Chunk<T>>(chunk);
}

} // namespace Basalt
