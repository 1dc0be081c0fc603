// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: checks of option values, so that a mistyped value stops the command with a usage
// error naming the option and the value instead of running on what a lenient parser made of it.
#pragma once

#include "quorvel/core/checks.hpp"

#include <CLI/App.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvel::Cli {

// The number a whole text spells (blanks around it allowed), when it is finite.
using Checks::finiteNumber;

// The rule of a box's field in the table that the Python package checks by as well, as a
// validator for CLI11's check(): the same values refused with the same words.
CLI::Validator boxRule(std::string_view box, std::string_view field);
// The name of a file the host can write (.las, .laz, .h5 or .hdf5).
CLI::Validator outputFile();
// An output that holds a raster: a bundle (.h5, .hdf5) or a GeoTIFF (.tif, .tiff).
CLI::Validator rasterOutputFile();
// One of the values separated by '|' in choices ("2|3|2D|3D"); a value outside them is refused
// with the list ("\"4\" is not one of 2, 3, 2D, 3D").
CLI::Validator oneOf(const std::string& choices);
// Why the host cannot write a file of that name (its extension), or nothing.
std::optional<std::string> unwritableName(const std::string& path);

// Throw CLI::ValidationError for option `name` unless text is a value range ("2:5,9": items a
// or a:b of finite numbers, separated by ',' or ';') that the library's parser also accepts
// (the table's words).
void checkRange(const std::string& name, const std::string& text);
// The same for a distance/class text ("1" or "0.5=2;1=3": distances finite and not negative,
// classes whole numbers).
void checkBands(const std::string& name, const std::string& text);

// The edits (insertions, deletions, substitutions) that turn a into b: how near a mistyped name
// is to a known one.
std::size_t editDistance(std::string_view a, std::string_view b);

} // namespace Quorvel::Cli
