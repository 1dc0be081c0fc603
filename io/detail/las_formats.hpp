// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: the LAS point formats 0 to 10 as one table: record lengths, where each value sits,
// which formats hold which values, and the element kinds shared with extra-bytes dimensions.
#pragma once

#include "io/detail/las_record.hpp"

#include "tressel/element_types.hpp"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Quorvel::Las::detail {

// Element kinds of record values and extra-bytes dimensions: the framework's scalar kinds, whose
// names are the element type names ("uint8", ...), so a field's type tells its kind.
using Kind = Tressel::ScalarKind;

inline int kindSize(Kind kind) {
  return static_cast<int>(Tressel::scalarSize(kind));
}
inline const std::string& kindName(Kind kind) {
  return Tressel::scalarName(kind);
}
// The kind of a field's element type; nullopt for types that are no plain scalar.
inline std::optional<Kind> kindOf(const std::string& typeName) {
  const Kind kind = Tressel::plainScalar(typeName);
  return kind == Kind::Opaque ? std::nullopt : std::optional<Kind>(kind);
}
// Extra-bytes data types 1 to 10 and back.
Kind extraKind(int dataType);
int extraType(Kind kind);

// A plain value of the point record: a whole number at an offset, or bits of a byte (bits > 0).
struct Dim {
  const char* name;
  int offset;
  Kind kind;
  int shift = 0;
  int bits = 0;
};

// The copy of a plain value between the record and its field's arrays.
inline FieldCopy fieldCopy(const Dim& d) {
  return {d.offset, d.bits > 0 ? 0 : kindSize(d.kind), d.shift,
          static_cast<std::uint8_t>((1 << d.bits) - 1)};
}

// What a point format holds beyond the core of every format.
struct Format {
  int length;       // bytes of a record without extra bytes
  int versionMinor; // the first LAS 1.x version that has the format
  bool gps;         // "GpsTime"
  bool extended;    // the formats 6 to 10: full-byte classes, 4-bit return numbers, channels
  int rgb;          // offset of "RGB", -1 when absent
  int nir;          // offset of "NIR", -1 when absent
  int wave;         // offset of the wave-packet values, -1 when absent
};

constexpr int FormatCount = 11;
const Format& format(int id);

// The plain values of a format in the reader's order (positions, scan angle and RGB aside: they
// are scaled or grouped).
const std::vector<Dim>& dims(int id);

// Names of every value some format holds, and of the fields the reader derives; such a field
// never becomes an extra-bytes dimension.
const std::set<std::string>& recordNames();

// What a grid needs of a format.
struct Needs {
  bool gps = false, extended = false, rgb = false, nir = false, wave = false;
};
Needs needsOf(int id);
// The format itself when it holds every need, otherwise the shortest format that holds both
// what the format held and the needs.
int formatFor(int id, const Needs& needs);

} // namespace Quorvel::Las::detail
