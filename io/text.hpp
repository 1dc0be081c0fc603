// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: point clouds as text (.csv with a header line and commas; .xyz and .txt without a
// header, blanks between values) and as binary little-endian PLY (.ply), written and read back.
#pragma once

#include "tressel/grid.hpp"

#include <string>
#include <vector>

namespace Quorvel::Text {

// Whether a path names a text cloud (.csv, .xyz, .txt) or a PLY file (.ply), in any case.
bool isText(const std::string& path);
bool isPly(const std::string& path);
// Whether a path names a text cloud with a header line (.csv).
bool isCsv(const std::string& path);

// The columns written: "x", "y", "z" for the positions' components, else a per-point field of
// single numbers, matched without regard to case or underscores ("classification", "gps_time"
// name "Classification", "GpsTime"). Empty: x, y, z and every per-point field of single numbers,
// in the cloud's order. Throws Las::Error naming an unknown field.
std::vector<std::string> columnsOf(const Tressel::Grid& grid,
                                   const std::vector<std::string>& fields);

// Writes the grid's points, fragment after fragment, one line (or PLY vertex) each. Text writes
// coordinates with as many decimals as the grid's LAS scale has (3 without one), integers as
// integers and floating fields with the shortest digits that read back the same value. PLY keeps
// each field's type (64-bit integers as double, which PLY lacks). The file appears only when
// complete. Throws Las::Error naming the file.
void write(const std::string& path, const Tressel::Grid& grid,
           const std::vector<std::string>& fields = {});

// Reads a text or PLY file into a grid of one fragment. A .csv file's header names its columns;
// .xyz and .txt files take fields (x, y, z by default), for .csv fields renames the columns. x,
// y and z make the positions; the LAS fields (Classification, Intensity, ...) get their LAS types,
// other text columns float64, PLY properties their own types. Throws Las::Error naming the file,
// the line and the problem.
Basalt::StrongPtr<Tressel::Grid> read(const std::string& path,
                                      const std::vector<std::string>& fields = {});

} // namespace Quorvel::Text
