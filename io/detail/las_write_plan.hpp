// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what a grid is written as in LAS: the file order of its points, the version and point
// format that hold its fields, scale and offset, the extra-bytes dimensions and the records.
#pragma once

#include "io/detail/las_output.hpp"
#include "io/las.hpp"

#include "vantor/physical_space.hpp"

#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Las::detail {

// A field's arrays, one per fragment of the positions' layout, as raw element pointers; for one
// component of a field of vectors, pointers to the component's first double.
struct Source {
  std::string name;
  std::string type;
  std::vector<const std::uint8_t*> fragments;
  int component = -1; // 0, 1 or 2 for x, y or z of a vector; -1 for the whole element
};

// The positions of a grid, fragment by fragment.
struct Layout {
  std::vector<std::size_t> sizes;
  std::vector<const Vantor::PhysicalSpace::point*> xyz;
  std::size_t count = 0;
};
Layout layoutOf(const Tressel::Grid& grid);

// The field of that name laid out like the positions; nullopt when the grid has none. Throws
// a Problem when its fragments differ from the positions'.
std::optional<Source> sourceOf(const Tressel::Grid& grid, const std::string& name,
                               const Layout& layout);

struct WritePlan {
  // The header as written (version, format, scale, offset, record length, identity), the VLRs
  // and EVLRs as written, and the extra-bytes dimensions in record order.
  FileInfo info;
  // The sources of every value the record holds: the format's plain values (per dims() of the
  // format; nullopt for those the grid lacks), the scan angle and RGB, and the extra bytes (per
  // info.extraBytes, per extraFields()).
  std::vector<std::optional<Source>> standard;
  std::optional<Source> scanAngle, rgb;
  std::vector<std::vector<Source>> extraSources;
  // The file slot of each point in layout order; empty when the layout order is the file order.
  std::vector<std::uint64_t> place;
};

// Plans the file at path (its name tells COPC): origin is the grid's LAS origin (or an explicit
// one), nullptr for none. A change of version or format is said in one line to options.warn.
// Problems are thrown as Problem.
WritePlan planWrite(const std::string& path, const Tressel::Grid& grid, const Layout& layout,
                    const FileInfo* origin, const WriteOptions& options);

} // namespace Quorvel::Las::detail
