// SPDX-License-Identifier: BSD-3-Clause
// Quorvel framework, data model: element types of fragment arrays and their registry.
#pragma once

#include "vantor/physical_space.hpp"

#include <cstddef>
#include <string>
#include <typeinfo>
#include <vector>

namespace Tressel {

// Naming convention tag of cells whose vertices are given as (i, j) index pairs.
struct IJ_CellNamingConvention {};

// A simplex cell of dimension Dim given by its Dim + 1 vertex indices; Dim = 1 is an edge.
template <int Dim, class Index, class Convention>
struct SimplexCell {
  Index vertices[Dim + 1]{};

  Index& operator[](int i) { return vertices[i]; }
  const Index& operator[](int i) const { return vertices[i]; }
  friend bool operator==(const SimplexCell&, const SimplexCell&) = default;
};

using Edge = SimplexCell<1, unsigned int, IJ_CellNamingConvention>;

using FixedArray3 = Vantor::FixedArray<double, 3>;

// Scalar kind of an element's components, so that file formats can describe the storage.
enum class ScalarKind {
  Int8,
  UInt8,
  Int16,
  UInt16,
  Int32,
  UInt32,
  Int64,
  UInt64,
  Float32,
  Float64,
  Float80,
  Opaque
};

// Stable name, component count and scalar kind of an element type. Types without a
// specialisation are registered as opaque under their compiler name.
template <class T>
struct ElementTraits {
  static std::string name() { return typeid(T).name(); }
  static constexpr int components = 1;
  static constexpr ScalarKind scalar = ScalarKind::Opaque;
};

#define QUORVEL_ELEMENT_TRAITS(TYPE, NAME, COMPONENTS, SCALAR)                                     \
  template <>                                                                                      \
  struct ElementTraits<TYPE> {                                                                     \
    static std::string name() { return NAME; }                                                     \
    static constexpr int components = COMPONENTS;                                                  \
    static constexpr ScalarKind scalar = ScalarKind::SCALAR;                                       \
  };

QUORVEL_ELEMENT_TRAITS(signed char, "int8", 1, Int8)
QUORVEL_ELEMENT_TRAITS(unsigned char, "uint8", 1, UInt8)
QUORVEL_ELEMENT_TRAITS(short, "int16", 1, Int16)
QUORVEL_ELEMENT_TRAITS(unsigned short, "uint16", 1, UInt16)
QUORVEL_ELEMENT_TRAITS(int, "int32", 1, Int32)
QUORVEL_ELEMENT_TRAITS(unsigned int, "uint32", 1, UInt32)
QUORVEL_ELEMENT_TRAITS(long long, "int64", 1, Int64)
QUORVEL_ELEMENT_TRAITS(unsigned long long, "uint64", 1, UInt64)
QUORVEL_ELEMENT_TRAITS(float, "float32", 1, Float32)
QUORVEL_ELEMENT_TRAITS(double, "float64", 1, Float64)
QUORVEL_ELEMENT_TRAITS(long double, "float80", 1, Float80)
QUORVEL_ELEMENT_TRAITS(Vantor::PhysicalSpace::point, "point", 3, Float64)
QUORVEL_ELEMENT_TRAITS(Vantor::PhysicalSpace::vector, "vector", 3, Float64)
QUORVEL_ELEMENT_TRAITS(Vantor::PhysicalSpace::bivector, "bivector", 3, Float64)
QUORVEL_ELEMENT_TRAITS(Vantor::PhysicalSpace::FloatPoint, "pointf", 3, Float32)
QUORVEL_ELEMENT_TRAITS(FixedArray3, "fixedarray3", 3, Float64)
QUORVEL_ELEMENT_TRAITS(Edge, "edge", 2, UInt32)
QUORVEL_ELEMENT_TRAITS(Vantor::RGB, "rgb", 3, UInt8)
QUORVEL_ELEMENT_TRAITS(Vantor::RGB16, "rgb16", 3, UInt16)

#undef QUORVEL_ELEMENT_TRAITS

// The one-component element types by scalar kind, the table that file formats share: calls
// f(T(0)) with the C++ type of the kind and returns its result; false for Opaque.
template <class F>
decltype(auto) withScalar(ScalarKind kind, F&& f) {
  switch (kind) {
  case ScalarKind::Int8:
    return f(static_cast<signed char>(0));
  case ScalarKind::UInt8:
    return f(static_cast<unsigned char>(0));
  case ScalarKind::Int16:
    return f(static_cast<short>(0));
  case ScalarKind::UInt16:
    return f(static_cast<unsigned short>(0));
  case ScalarKind::Int32:
    return f(0);
  case ScalarKind::UInt32:
    return f(0U);
  case ScalarKind::Int64:
    return f(0LL);
  case ScalarKind::UInt64:
    return f(0ULL);
  case ScalarKind::Float32:
    return f(0.0F);
  case ScalarKind::Float64:
    return f(0.0);
  case ScalarKind::Float80:
  case ScalarKind::Opaque:
    break;
  }
  return f(0.0L);
}

// Bytes of one scalar of the kind (0 for Opaque).
std::size_t scalarSize(ScalarKind kind);
// The element type name of a one-component type of the kind ("uint8", ..., "float64").
const std::string& scalarName(ScalarKind kind);
// The kind of a one-component element type with a plain scalar, by its name; Opaque for any
// other name.
ScalarKind plainScalar(const std::string& typeName);

// Run-time description of an element type. One object per type, obtained with
// TresselType<T>(); compare types by address.
class TresselTypeBase {
public:
  TresselTypeBase(std::string name, const std::type_info& info, std::size_t size, int components,
                  ScalarKind scalar)
      : name_(std::move(name)), info_(info), size_(size), components_(components), scalar_(scalar) {
  }
  TresselTypeBase(const TresselTypeBase&) = delete;
  TresselTypeBase& operator=(const TresselTypeBase&) = delete;

  const std::string& name() const { return name_; }
  const std::type_info& typeInfo() const { return info_; }
  std::size_t size() const { return size_; }
  int components() const { return components_; }
  ScalarKind scalar() const { return scalar_; }

  // Adds a type to the process-wide table of element types; thread-safe. A type that is already
  // there is not added again (the attempt is counted, see rememberCount).
  static void remember(const TresselTypeBase& type);
  // The registered type of that name, or null.
  static const TresselTypeBase* find(const std::string& name);
  // The registered type of that C++ type, or null.
  static const TresselTypeBase* find(const std::type_info& info);
  static std::vector<const TresselTypeBase*> registeredTypes();
  // How often remember() was called for the type of that name (1 after a clean start).
  static int rememberCount(const std::string& name);

private:
  std::string name_;
  const std::type_info& info_;
  std::size_t size_;
  int components_;
  ScalarKind scalar_;
};

template <class T>
const TresselTypeBase& TresselType() {
  static const TresselTypeBase type(ElementTraits<T>::name(), typeid(T), sizeof(T),
                                    ElementTraits<T>::components, ElementTraits<T>::scalar);
  return type;
}

} // namespace Tressel
