// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: what raster preparation and mapping share: the messages' tag, the names of the
// prepared fields, typed access to a raster fragment's cell arrays and the ground height read
// from float or double cells.
#pragma once

#include "quorvel/core/core.hpp"
#include "quorvel/raster/raster.hpp"

#include <string>

namespace Quorvel::detail {

inline constexpr const char* RasterTag = "mapRasterOnPointCloud: ";
inline constexpr const char* PlaneField = "PlanarRegression";
inline constexpr const char* MaxGroundField = "MaxGround";
inline constexpr const char* MinGroundField = "MinGround";
inline constexpr const char* CellTypeField = "CellType";

// Cell types whose cells carry ground: 0 and 4 (the value with bit 2 masked off is 0).
inline bool groundCell(unsigned char type) {
  return (type & ~4U) == 0;
}

// The cell array of one raster fragment as a 3-D array of T; empty when missing or of another
// type.
template <class T>
StrongPtr<MemArray<3, T>> cellArray(const Field& field, const FragmentID& id) {
  return Tressel::arrayCast<3, T>(field.getData(id));
}

// Ground heights of one raster fragment, stored as float or double.
class HeightCells {
public:
  HeightCells() = default;
  HeightCells(const Field& field, const FragmentID& id)
      : f_(cellArray<float>(field, id)), d_(f_ ? nullptr : cellArray<double>(field, id)) {}

  explicit operator bool() const { return f_ || d_; }
  double operator[](std::size_t i) const {
    return f_ ? static_cast<double>(f_->data()[i]) : d_->data()[i];
  }

private:
  StrongPtr<MemArray<3, float>> f_;
  StrongPtr<MemArray<3, double>> d_;
};

// "(x ,y ,z)", the form of cell sizes and corners in printed lines.
std::string tripleText(double x, double y, double z);
// The box's corners as "(min) | (max)".
std::string cornersText(const BoundingBox& box);

// Whether a field holds ground heights that HeightCells reads.
bool heightField(const Field& field);

} // namespace Quorvel::detail
