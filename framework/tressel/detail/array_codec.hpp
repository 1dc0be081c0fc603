// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: arrays and attributes in HDF5 files, private to the bundle code.
// An array is stored as a dataset of the plain scalars of its element type; point coordinates
// may be stored shifted or in single precision and are restored on reading. Every failure
// throws an Hdf5Error that names the object it concerns.
#pragma once

#include "tressel/detail/hdf5.hpp"
#include "tressel/element_types.hpp"
#include "tressel/mem_base.hpp"

#include "basalt/chunk.hpp"

#include <string>
#include <vector>

namespace Tressel::detail {

// Attributes: `count` values of one HDF5 type, or a fixed-length text.
void writeAttribute(hid_t object, const char* name, hid_t type, const void* data,
                    hsize_t count = 1);
void writeText(hid_t object, const char* name, const std::string& text);
bool hasAttribute(hid_t object, const char* name);
std::string readText(hid_t object, const char* name, const std::string& where);

template <class T>
std::vector<T> readNumbers(hid_t object, const char* name, hid_t type, std::size_t count,
                           const std::string& where) {
  if (!hasAttribute(object, name))
    throw Hdf5Error("missing attribute " + where + ":" + name);
  Handle attribute(H5Aopen(object, name, H5P_DEFAULT), H5Aclose, "attribute " + where);
  Handle space(H5Aget_space(attribute), H5Sclose, "attribute space " + where);
  if (H5Sget_simple_extent_npoints(space) != static_cast<hssize_t>(count))
    throw Hdf5Error("attribute " + where + ":" + name + " has the wrong size");
  std::vector<T> values(count);
  if (H5Aread(attribute, type, values.data()) < 0)
    throw Hdf5Error("cannot read attribute " + where + ":" + name);
  return values;
}

// The HDF5 type of one scalar of that kind, negative for opaque elements.
hid_t nativeType(ScalarKind kind);
// The element type itself when it can be stored as plain scalars, else an error.
const TresselTypeBase& storable(const TresselTypeBase& type);
// The storable, registered element type of a chunk.
const TresselTypeBase& typeOf(const Basalt::ChunkBase& chunk);

// Writes one array. With a shift, point data is stored minus the shift (kept as the attribute
// "NumericalShift"); with single precision, as float triples (attribute "StoredAs").
void writeArray(hid_t group, const std::string& name, const TresselTypeBase& type,
                const MemBase::Extents& extents, const Basalt::ChunkBase& chunk, bool shift,
                bool single);
// Reads one array of the given element type and rank, undoing a stored shift.
StrongPtr<MemBase> readArray(hid_t group, const std::string& name, const TresselTypeBase& type,
                             int rank, const std::string& where);

} // namespace Tressel::detail
