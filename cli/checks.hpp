// quorvel host: checks of option values, so that a mistyped value stops the command with a usage
// error naming the option and the value instead of running on what a lenient parser made of it.
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quorvel::Cli {

// The number a whole text spells (blanks around it allowed), when it is finite.
std::optional<double> finiteNumber(std::string_view text);

// Validators for CLI11's check(): a finite number above 0; a finite number in [low, high]; the
// name of a file the host can write (.las, .h5 or .hdf5).
CLI::Validator positiveNumber();
CLI::Validator numberWithin(double low, double high);
CLI::Validator nonNegativeNumber();
// Any finite number.
CLI::Validator finiteNumberCheck();
CLI::Validator outputFile();
// An output that holds a raster: a bundle (.h5, .hdf5) or a GeoTIFF (.tif, .tiff).
CLI::Validator rasterOutputFile();
// One of a list of values; a value outside it is refused with the list ("\"4\" is not one of 0,
// 1, 2").
CLI::Validator oneOf(const std::vector<std::string>& choices);
// Why the host cannot write a file of that name (its extension), or nothing.
std::optional<std::string> unwritableName(const std::string& path);

// Throw CLI::ValidationError for option `name` unless text is a value range ("2:5,9": items a
// or a:b of finite numbers, separated by ',' or ';') that the library's parser also accepts.
void checkRange(const std::string& name, const std::string& text);
// The same for a distance/class text ("1" or "0.5=2;1=3": distances finite and not negative,
// classes whole numbers).
void checkBands(const std::string& name, const std::string& text);

// The edits (insertions, deletions, substitutions) that turn a into b: how near a mistyped name
// is to a known one.
std::size_t editDistance(std::string_view a, std::string_view b);

} // namespace Quorvel::Cli
