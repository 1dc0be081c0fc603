// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: type-erased fragment data.
#pragma once

#include "basalt/chunk.hpp"
#include "tressel/element_types.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace Tressel {

using Basalt::StrongPtr;

// The data of one fragment: a reference-counted chunk viewed as an N-dimensional array of one
// element type. MemArray<N, T> is the only implementation; code that knows the type casts to it
// (a failed cast means "missing").
class MemBase : public Basalt::ReferenceBase {
public:
  using Extents = std::vector<std::size_t>;
  using Factory = StrongPtr<MemBase> (*)(const Extents&);

  virtual int rank() const = 0;
  virtual const TresselTypeBase& elementType() const = 0;
  virtual Extents extents() const = 0;
  // Number of elements (the product of the extents).
  virtual std::size_t nElements() const = 0;
  virtual const StrongPtr<Basalt::ChunkBase>& myChunk() const = 0;
  // A new array of the same shape holding a copy of the elements.
  virtual StrongPtr<MemBase> clone() const = 0;
  // A new array of this one's rank and element type over elements it does not own: the product
  // of the extents at data (laid out as the element type), kept alive by keeper. The first
  // writable access copies them (see Basalt::ChunkBase).
  virtual StrongPtr<MemBase> borrowing(const Extents& extents, const void* data,
                                       Basalt::BlockKeeper keeper) const = 0;

  // The elements' bytes for reading; unlike myChunk()->rawData() on the shared chunk, this never
  // copies a borrowed block.
  const void* elementBytes() const {
    const Basalt::ChunkBase& chunk = *myChunk();
    return chunk.rawData();
  }

  // Registry of array makers by rank and element type, so that data described at run time (for
  // example in a file) can be turned into the right MemArray. Thread-safe; a second registration
  // of the same (rank, type) keeps the first and is only counted.
  static void registerCreator(int rank, const TresselTypeBase& type, Factory factory);
  // A new zero-initialised array, or empty when no maker of that rank and type is registered or
  // the extents do not match the rank.
  static StrongPtr<MemBase> create(int rank, const std::string& typeName, const Extents& extents);
  // How often registerCreator was called for (rank, type name).
  static int creatorRegistrations(int rank, const std::string& typeName);
  // Number of registered (rank, type) makers.
  static std::size_t registeredCreators();
};

// Registers the element type T with the type table, once per process.
template <class T>
struct MemArrayAllocator {
  static bool registerMe() {
    static const bool done = [] {
      TresselTypeBase::remember(TresselType<T>());
      return true;
    }();
    return done;
  }
};

} // namespace Tressel
