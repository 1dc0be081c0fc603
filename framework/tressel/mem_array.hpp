// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: typed N-dimensional arrays and strided views on them.
#pragma once

#include "tressel/mem_base.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace Tressel {

// Extents or a position in an N-dimensional array.
template <int N>
struct MultiIndex : std::array<std::size_t, N> {
  MultiIndex() : std::array<std::size_t, N>{} {}
  template <class... I>
  requires(sizeof...(I) == N && N > 0) MultiIndex(I... i)
      : std::array<std::size_t, N>{static_cast<std::size_t>(i)...} {}

  std::size_t product() const {
    std::size_t p = 1;
    for (std::size_t e : *this)
      p *= e;
    return p;
  }
};

// A view on N-dimensional data: a base pointer (already moved by the view's offset), extents and
// per-dimension strides in elements. Cheap to copy; it keeps the viewed chunk alive. Used by hot
// loops, so element access does no checking. Arrays made by MemArray store the first index
// fastest: element (i, j, k) of extents (nx, ny, nz) sits at i + nx * (j + ny * k).
template <int N, class T>
class MultiArray {
public:
  static_assert(N >= 1 && N <= 4, "ranks 1 to 4 are supported");
  using Strides = std::array<std::ptrdiff_t, N>;

  MultiArray() : strides_{} {}
  MultiArray(T* base, const MultiIndex<N>& extents, const Strides& strides,
             StrongPtr<Basalt::ChunkBase> keeper = nullptr)
      : base_(base), extents_(extents), strides_(strides), keeper_(std::move(keeper)) {}

  // A read-only view of a writable one.
  template <class U>
  requires std::is_same_v<const U, T> MultiArray(const MultiArray<N, U>& other)
      : base_(other.base_), extents_(other.extents_), strides_(other.strides_),
        keeper_(other.keeper_) {}

  // A dense view with the first index fastest.
  static MultiArray dense(T* base, const MultiIndex<N>& extents,
                          StrongPtr<Basalt::ChunkBase> keeper = nullptr) {
    Strides strides{};
    std::ptrdiff_t s = 1;
    for (int d = 0; d < N; ++d) {
      strides[d] = s;
      s *= static_cast<std::ptrdiff_t>(extents[d]);
    }
    return MultiArray(base, extents, strides, std::move(keeper));
  }

  std::size_t extent(int d) const { return extents_[d]; }
  const MultiIndex<N>& extents() const { return extents_; }
  std::ptrdiff_t stride(int d) const { return strides_[d]; }
  std::size_t size() const { return extents_.product(); }
  bool empty() const { return base_ == nullptr || size() == 0; }
  T* origin() const { return base_; }
  bool isContiguous() const {
    std::ptrdiff_t s = 1;
    for (int d = 0; d < N; ++d) {
      if (extents_[d] > 1 && strides_[d] != s)
        return false;
      s *= static_cast<std::ptrdiff_t>(extents_[d]);
    }
    return true;
  }

  T& operator()(const MultiIndex<N>& i) const { return base_[offsetOf(i)]; }
  template <class... I>
  requires(sizeof...(I) == N) T& operator()(I... i) const { return (*this)(MultiIndex<N>(i...)); }
  T& operator[](std::size_t i) const requires(N == 1) {
    return base_[static_cast<std::ptrdiff_t>(i) * strides_[0]];
  }

  // The (N-1)-dimensional view at index `index` of dimension `dim`; empty when out of range.
  MultiArray<N - 1, T> slice(int dim, std::size_t index) const requires(N > 1) {
    MultiIndex<N - 1> extents;
    typename MultiArray<N - 1, T>::Strides strides{};
    for (int d = 0, o = 0; d < N; ++d) {
      if (d == dim)
        continue;
      extents[o] = extents_[d];
      strides[o] = strides_[d];
      ++o;
    }
    if (dim < 0 || dim >= N || index >= extents_[dim])
      return {};
    return MultiArray<N - 1, T>(base_ + static_cast<std::ptrdiff_t>(index) * strides_[dim], extents,
                                strides, keeper_);
  }

  // The view of count elements per dimension starting at start, clipped to the extents.
  MultiArray subarray(const MultiIndex<N>& start, const MultiIndex<N>& count) const {
    MultiIndex<N> extents;
    for (int d = 0; d < N; ++d) {
      if (start[d] >= extents_[d])
        return MultiArray(base_, MultiIndex<N>(), strides_, keeper_);
      extents[d] = std::min(count[d], extents_[d] - start[d]);
    }
    return MultiArray(base_ + offsetOf(start), extents, strides_, keeper_);
  }

  // Every step-th element along dimension dim.
  MultiArray every(int dim, std::size_t step) const {
    MultiArray out = *this;
    if (dim < 0 || dim >= N || step == 0)
      return out;
    out.extents_[dim] = (extents_[dim] + step - 1) / step;
    out.strides_[dim] = strides_[dim] * static_cast<std::ptrdiff_t>(step);
    return out;
  }

private:
  std::ptrdiff_t offsetOf(const MultiIndex<N>& i) const {
    std::ptrdiff_t o = 0;
    for (int d = 0; d < N; ++d)
      o += static_cast<std::ptrdiff_t>(i[d]) * strides_[d];
    return o;
  }

  template <int, class>
  friend class MultiArray;

  T* base_ = nullptr;
  MultiIndex<N> extents_;
  Strides strides_;
  StrongPtr<Basalt::ChunkBase> keeper_;
};

// An N-dimensional array of T that owns its storage (a shared Basalt::Chunk<T>), the data of
// one fragment. Element types are registered once per process before first use: the static
// member TypeIsRegistered is initialised by the first use of the instantiation (thread-safe).
template <int N, class T>
class MemArray final : public MemBase {
public:
  static_assert(N >= 1 && N <= 4, "ranks 1 to 4 are supported");
  static const bool TypeIsRegistered;

  // Elements default-initialised: numbers, points and vectors are left for the maker to write
  // (see Basalt::ArrayAllocator); filled() gives an array of one value.
  explicit MemArray(const MultiIndex<N>& extents)
      : MemArray(extents, std::make_shared<Basalt::Chunk<T>>(extents.product())) {}
  // Takes the values; their count must be the product of the extents.
  MemArray(const MultiIndex<N>& extents, Basalt::ArrayVector<T> values)
      : MemArray(extents, std::make_shared<Basalt::Chunk<T>>(std::move(values))) {}
  // Copies the values; their count must be the product of the extents.
  MemArray(const MultiIndex<N>& extents, std::initializer_list<T> values)
      : MemArray(extents, std::make_shared<Basalt::Chunk<T>>(values)) {}
  MemArray(const MultiIndex<N>& extents, const std::vector<T>& values)
      : MemArray(extents, std::make_shared<Basalt::Chunk<T>>(std::span<const T>(values))) {}
  // Reads the elements at data without copying them, keeper keeping them alive; the first
  // writable access (data(), operator[], view()) copies them.
  MemArray(const MultiIndex<N>& extents, const T* data, Basalt::BlockKeeper keeper)
      : MemArray(extents,
                 std::make_shared<Basalt::Chunk<T>>(data, extents.product(), std::move(keeper))) {}
  // Shares an existing chunk; its element count must be the product of the extents.
  MemArray(const MultiIndex<N>& extents, StrongPtr<Basalt::Chunk<T>> chunk)
      : extents_(extents), typed_(chunk.get()), chunk_(std::move(chunk)) {
    ensureRegistered();
    if (!typed_ || typed_->size() != extents.product())
      throw std::invalid_argument("MemArray: " + std::to_string(typed_ ? typed_->size() : 0) +
                                  " values for extents holding " +
                                  std::to_string(extents.product()) + " elements");
  }

  int rank() const override { return N; }
  const TresselTypeBase& elementType() const override { return TresselType<T>(); }
  Extents extents() const override { return Extents(extents_.begin(), extents_.end()); }
  std::size_t nElements() const override { return typed_->size(); }
  const StrongPtr<Basalt::ChunkBase>& myChunk() const override { return chunk_; }
  StrongPtr<MemBase> clone() const override {
    return std::make_shared<MemArray>(extents_, std::make_shared<Basalt::Chunk<T>>(typed_->view()));
  }
  StrongPtr<MemBase> borrowing(const Extents& extents, const void* data,
                               Basalt::BlockKeeper keeper) const override {
    return std::make_shared<MemArray>(multiIndexOf(extents), static_cast<const T*>(data),
                                      std::move(keeper));
  }

  const MultiIndex<N>& multiExtents() const { return extents_; }
  std::size_t size() const { return typed_->size(); }
  // Writable access copies an array that reads a block it does not own (see Basalt::Chunk);
  // reading never does.
  T* data() { return typed_->data(); }
  const T* data() const { return readable().data(); }
  // Linear element access (first index fastest).
  T& operator[](std::size_t i) { return typed_->data()[i]; }
  const T& operator[](std::size_t i) const { return readable().data()[i]; }
  MultiArray<N, T> view() { return MultiArray<N, T>::dense(data(), extents_, chunk_); }
  MultiArray<N, const T> view() const {
    return MultiArray<N, const T>::dense(data(), extents_, chunk_);
  }

  // Every element equal to value (zeros: T()).
  static StrongPtr<MemArray> filled(const MultiIndex<N>& extents, const T& value) {
    return std::make_shared<MemArray>(extents,
                                      std::make_shared<Basalt::Chunk<T>>(extents.product(), value));
  }

  static StrongPtr<MemBase> make(const Extents& extents) {
    return std::make_shared<MemArray>(multiIndexOf(extents));
  }

private:
  static MultiIndex<N> multiIndexOf(const Extents& extents) {
    MultiIndex<N> e;
    for (int d = 0; d < N && d < static_cast<int>(extents.size()); ++d)
      e[d] = extents[static_cast<std::size_t>(d)];
    return e;
  }
  const Basalt::Chunk<T>& readable() const { return *typed_; }
  static bool registerType() {
    MemArrayAllocator<T>::registerMe();
    MemBase::registerCreator(N, TresselType<T>(), &MemArray::make);
    return true;
  }
  static void ensureRegistered() {
    static const bool once = registerType();
    (void)once;
  }

  MultiIndex<N> extents_;
  Basalt::Chunk<T>* typed_;
  StrongPtr<Basalt::ChunkBase> chunk_;
};

template <int N, class T>
const bool MemArray<N, T>::TypeIsRegistered = (MemArray<N, T>::ensureRegistered(), true);

// The array behind a MemBase when it is a MemArray<N, T>; empty otherwise ("missing").
template <int N, class T>
StrongPtr<MemArray<N, T>> arrayCast(const StrongPtr<MemBase>& data) {
  return std::dynamic_pointer_cast<MemArray<N, T>>(data);
}

} // namespace Tressel

#include "tressel/mem_array_instances.hpp"
