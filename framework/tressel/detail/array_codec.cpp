// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: arrays and attributes in HDF5 files, element by element as
// their element types declare them.
#include "tressel/detail/array_codec.hpp"

#include "tressel/storage.hpp"

#include "basalt/text.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace Tressel::detail {

using Vantor::PhysicalSpace::point;

void writeAttribute(hid_t object, const char* name, hid_t type, const void* data, hsize_t count) {
  Handle space(H5Screate_simple(1, &count, nullptr), H5Sclose, "dataspace");
  Handle attribute(H5Acreate2(object, name, type, space, H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
                   std::string("cannot create attribute ") + name);
  if (H5Awrite(attribute, type, data) < 0)
    throw Hdf5Error(std::string("cannot write attribute ") + name);
}

void writeText(hid_t object, const char* name, const std::string& text) {
  Handle type(H5Tcopy(H5T_C_S1), H5Tclose, "string type");
  H5Tset_size(type, std::max<std::size_t>(text.size(), 1));
  H5Tset_strpad(type, H5T_STR_NULLPAD);
  Handle space(H5Screate(H5S_SCALAR), H5Sclose, "dataspace");
  Handle attribute(H5Acreate2(object, name, type, space, H5P_DEFAULT, H5P_DEFAULT), H5Aclose,
                   std::string("cannot create attribute ") + name);
  const std::string padded = text.empty() ? std::string(1, '\0') : text;
  if (H5Awrite(attribute, type, padded.data()) < 0)
    throw Hdf5Error(std::string("cannot write attribute ") + name);
}

bool hasAttribute(hid_t object, const char* name) {
  return H5Aexists(object, name) > 0;
}

std::string readText(hid_t object, const char* name, const std::string& where) {
  if (!hasAttribute(object, name))
    throw Hdf5Error("missing attribute " + where + ":" + name);
  Handle attribute(H5Aopen(object, name, H5P_DEFAULT), H5Aclose, "attribute " + where);
  Handle type(H5Aget_type(attribute), H5Tclose, "attribute type " + where);
  if (H5Tget_class(type) != H5T_STRING || H5Tis_variable_str(type) > 0)
    throw Hdf5Error("attribute " + where + ":" + name + " is not a fixed-length text");
  std::string text(H5Tget_size(type), '\0');
  Handle memory(H5Tcopy(type), H5Tclose, "string type");
  if (H5Aread(attribute, memory, text.data()) < 0)
    throw Hdf5Error("cannot read attribute " + where + ":" + name);
  return text.substr(0, text.find('\0'));
}

hid_t nativeType(ScalarKind kind) {
  switch (kind) {
  case ScalarKind::Int8:
    return H5T_NATIVE_SCHAR;
  case ScalarKind::UInt8:
    return H5T_NATIVE_UCHAR;
  case ScalarKind::Int16:
    return H5T_NATIVE_SHORT;
  case ScalarKind::UInt16:
    return H5T_NATIVE_USHORT;
  case ScalarKind::Int32:
    return H5T_NATIVE_INT;
  case ScalarKind::UInt32:
    return H5T_NATIVE_UINT;
  case ScalarKind::Int64:
    return H5T_NATIVE_LLONG;
  case ScalarKind::UInt64:
    return H5T_NATIVE_ULLONG;
  case ScalarKind::Float32:
    return H5T_NATIVE_FLOAT;
  case ScalarKind::Float64:
    return H5T_NATIVE_DOUBLE;
  case ScalarKind::Float80:
    return H5T_NATIVE_LDOUBLE;
  case ScalarKind::Opaque:
    break;
  }
  return -1;
}

// The element type must be stored as `components` plain scalars of its kind.
const TresselTypeBase& storable(const TresselTypeBase& type) {
  const hid_t native = nativeType(type.scalar());
  if (native < 0 ||
      H5Tget_size(native) * static_cast<std::size_t>(type.components()) != type.size())
    throw Hdf5Error("element type " + type.name() + " cannot be stored");
  return type;
}

const TresselTypeBase& typeOf(const Basalt::ChunkBase& chunk) {
  const TresselTypeBase* type = TresselTypeBase::find(chunk.elementType());
  if (!type)
    throw Hdf5Error(std::string("element type ") + chunk.elementType().name() +
                    " is not registered");
  return storable(*type);
}

namespace {

// Dataset dimensions: the extents slowest first, then the components of multi-value elements,
// so that the file's row-major order is the array's own order (first index fastest).
std::vector<hsize_t> datasetShape(const MemBase::Extents& extents, const TresselTypeBase& type) {
  std::vector<hsize_t> dims(extents.rbegin(), extents.rend());
  if (type.components() > 1)
    dims.push_back(static_cast<hsize_t>(type.components()));
  return dims;
}

} // namespace

// Writes one array. With a shift, point data is stored minus the shift (kept as the attribute
// "NumericalShift"); with single precision, as float triples (attribute "StoredAs").
void writeArray(hid_t group, const std::string& name, const TresselTypeBase& type,
                const MemBase::Extents& extents, const Basalt::ChunkBase& chunk, bool shift,
                bool single) {
  const auto dims = datasetShape(extents, type);
  Handle space(H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr), H5Sclose,
               "dataspace of " + name);
  const bool points = holdsPoints(chunk);
  shift = shift && points;
  single = single && points;
  const std::size_t n = chunk.size();

  double offset[3] = {0, 0, 0};
  std::vector<double> asDouble;
  if (shift || single) {
    asDouble.resize(3 * n);
    if (chunk.elementType() == typeid(point)) {
      std::memcpy(asDouble.data(), chunk.rawData(), 3 * n * sizeof(double));
    } else {
      const float* values = static_cast<const float*>(chunk.rawData());
      for (std::size_t i = 0; i < 3 * n; ++i)
        asDouble[i] = values[i];
    }
  }
  if (shift) {
    // The centre of the finite values: offsets then take the fewest significant bits.
    for (int k = 0; k < 3; ++k) {
      double lo = 0, hi = 0;
      bool any = false;
      for (std::size_t i = 0; i < n; ++i) {
        const double v = asDouble[3 * i + k];
        if (!std::isfinite(v))
          continue;
        lo = any ? std::min(lo, v) : v;
        hi = any ? std::max(hi, v) : v;
        any = true;
      }
      offset[k] = any ? std::floor((lo + hi) / 2) : 0.0;
      for (std::size_t i = 0; i < n; ++i)
        asDouble[3 * i + k] -= offset[k];
    }
  }

  const hid_t memoryType = single ? H5T_NATIVE_FLOAT : nativeType(type.scalar());
  Handle dataset(
      H5Dcreate2(group, name.c_str(), memoryType, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT),
      H5Dclose, "cannot create dataset " + name);
  herr_t status = 0;
  if (single) {
    std::vector<float> narrow(asDouble.begin(), asDouble.end());
    status = H5Dwrite(dataset, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, narrow.data());
    writeText(dataset, "StoredAs", "float32");
  } else if (shift && chunk.elementType() == typeid(point)) {
    status = H5Dwrite(dataset, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, asDouble.data());
  } else if (shift) {
    std::vector<float> narrow(asDouble.begin(), asDouble.end());
    status = H5Dwrite(dataset, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, narrow.data());
  } else {
    status = H5Dwrite(dataset, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, chunk.rawData());
  }
  if (status < 0)
    throw Hdf5Error("cannot write dataset " + name);
  if (shift)
    writeAttribute(dataset, "NumericalShift", H5T_NATIVE_DOUBLE, offset, 3);
}

namespace {

// The stored scalar type in words: "float32", "int16", "uint8", or its class.
std::string storedName(hid_t stored) {
  const std::size_t bits = H5Tget_size(stored) * 8;
  switch (H5Tget_class(stored)) {
  case H5T_FLOAT:
    return "float" + std::to_string(bits);
  case H5T_INTEGER:
    return (H5Tget_sign(stored) == H5T_SGN_NONE ? "uint" : "int") + std::to_string(bits);
  case H5T_STRING:
    return "text";
  default:
    return "compound or other";
  }
}

// A dataset must store the scalars its element type declares: reading other ones would convert
// them silently (1.5 to 1, 300 to 255). Floating types may be stored narrower (single
// precision, shifted coordinates); whole numbers must be stored as they are.
void checkStoredType(hid_t dataset, const TresselTypeBase& type, const std::string& where) {
  if (type.scalar() == ScalarKind::Opaque)
    return;
  const int nativeBits = static_cast<int>(H5Tget_size(nativeType(type.scalar())) * 8);
  Handle stored(H5Dget_type(dataset), H5Tclose, "type of " + where);
  const bool floating = type.scalar() == ScalarKind::Float32 ||
                        type.scalar() == ScalarKind::Float64 ||
                        type.scalar() == ScalarKind::Float80;
  const H5T_class_t cls = H5Tget_class(stored);
  const bool fits = floating ? cls == H5T_FLOAT
                             : cls == H5T_INTEGER &&
                                   static_cast<int>(H5Tget_size(stored) * 8) == nativeBits &&
                                   (H5Tget_sign(stored) == H5T_SGN_NONE) ==
                                       (H5Tget_sign(nativeType(type.scalar())) == H5T_SGN_NONE);
  if (!fits)
    throw Hdf5Error("dataset " + where + " stores " + storedName(stored) + " values, not the " +
                    type.name() + " elements its field declares");
}

// A dataset may declare no more values than the file holds for it (many times more when it is
// compressed): a hostile shape would otherwise make a reader allocate without bound.
void checkStoredSize(hid_t dataset, const std::vector<hsize_t>& dims, const std::string& where) {
  Handle stored(H5Dget_type(dataset), H5Tclose, "type of " + where);
  long double bytes = static_cast<long double>(H5Tget_size(stored));
  for (const hsize_t d : dims)
    bytes *= static_cast<long double>(d);
  Handle creation(H5Dget_create_plist(dataset), H5Pclose, "properties of " + where);
  const long double ratio = H5Pget_nfilters(creation) > 0 ? 1000.0L : 1.0L;
  const auto held = static_cast<long double>(H5Dget_storage_size(dataset));
  if (bytes > held * ratio + (ratio > 1 ? 1e6L : 0.0L))
    throw Hdf5Error("dataset " + where + " declares " + Basalt::format("%.0Lf", bytes) +
                    " bytes, more than the file holds for it");
}

} // namespace

// Reads one array of the given element type and rank, undoing a stored shift.
StrongPtr<MemBase> readArray(hid_t group, const std::string& name, const TresselTypeBase& type,
                             int rank, const std::string& where) {
  Handle dataset(H5Dopen2(group, name.c_str(), H5P_DEFAULT), H5Dclose,
                 "cannot open dataset " + where);
  checkStoredType(dataset, type, where);
  Handle space(H5Dget_space(dataset), H5Sclose, "dataspace of " + where);
  const int ndims = H5Sget_simple_extent_ndims(space);
  const int expected = rank + (type.components() > 1 ? 1 : 0);
  if (ndims != expected)
    throw Hdf5Error("dataset " + where + " has " + std::to_string(ndims) + " dimensions, " +
                    std::to_string(expected) + " expected");
  std::vector<hsize_t> dims(static_cast<std::size_t>(ndims));
  H5Sget_simple_extent_dims(space, dims.data(), nullptr);
  if (type.components() > 1 && dims.back() != static_cast<hsize_t>(type.components()))
    throw Hdf5Error("dataset " + where + " does not hold " + type.name() + " elements");
  checkStoredSize(dataset, dims, where);
  MemBase::Extents extents(dims.rend() - rank, dims.rend());
  auto data = MemBase::create(rank, type.name(), extents);
  if (!data)
    throw Hdf5Error("dataset " + where + ": no array of " + type.name());
  if (data->nElements() > 0 && H5Dread(dataset, nativeType(type.scalar()), H5S_ALL, H5S_ALL,
                                       H5P_DEFAULT, data->myChunk()->rawData()) < 0)
    throw Hdf5Error("cannot read dataset " + where + " (truncated or corrupt)");
  if (hasAttribute(dataset, "NumericalShift")) {
    const auto shift = readNumbers<double>(dataset, "NumericalShift", H5T_NATIVE_DOUBLE, 3, where);
    auto& chunk = *data->myChunk();
    if (chunk.elementType() == typeid(point)) {
      auto* values = static_cast<double*>(chunk.rawData());
      for (std::size_t i = 0; i < chunk.size(); ++i)
        for (int k = 0; k < 3; ++k)
          values[3 * i + k] += shift[static_cast<std::size_t>(k)];
    } else if (chunk.elementType() == typeid(Vantor::PhysicalSpace::FloatPoint)) {
      auto* values = static_cast<float*>(chunk.rawData());
      for (std::size_t i = 0; i < chunk.size(); ++i)
        for (int k = 0; k < 3; ++k)
          values[3 * i + k] = static_cast<float>(values[3 * i + k] + shift[k]);
    }
  }
  return data;
}

} // namespace Tressel::detail
