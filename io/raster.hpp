// Quorvel: ground rasters in and out. Any raster GDAL reads (GeoTIFF, ASCII grid, ...) becomes a
// raster grid the library prepares and maps; raster grids are written back as GeoTIFF with their
// coordinate system; ground rasters are made from the ground points of a cloud.
//
// A raster grid is a regularly fragmented uniform grid of one layer (Tressel::UniformGridView):
// cell (i, j) lies at origin + (i, j) * cell size, the centre of its pixel, y growing with j;
// every fragment holds the same number of cells, so the last fragments are filled up with cells
// of type NoData. Per cell: "CellType" (unsigned 8-bit: Measured, Filled or NoData) and the
// height (float32, "Height" unless named otherwise). The grid's attributes "RasterColumns" and
// "RasterRows" give the pixels that are not filling, "CoordinateSystem" the coordinate system as
// WKT (empty when unknown).
#pragma once

#include "io/las.hpp"

#include "tressel/Grid.hpp"
#include "vantor/MultiRange.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quorvel::Raster {

// Cell types of a raster grid: the mapping uses exactly the measured and filled cells.
inline constexpr std::uint8_t Measured = 0; // a height from data
inline constexpr std::uint8_t NoData = 1;   // no height (nodata pixels, filling, far from data)
inline constexpr std::uint8_t Filled = 4;   // a height filled in from the surrounding cells

inline constexpr const char* DefaultHeightField = "Height";

// Whether a path names a raster file (.tif, .tiff, .asc, .img, .vrt) rather than a cloud.
bool isRasterFile(const std::string& path);

// Reads band 1 of a north-up raster: one cell per pixel, nodata pixels (GDAL's nodata value or
// NaN) as NoData, fragments of fragmentCells x fragmentCells cells (fewer when the raster is
// smaller). Throws Las::Error naming the file and the problem (missing, not a raster, rotated).
Basalt::StrongPtr<Tressel::Grid> import(const std::string& path, std::size_t fragmentCells = 256,
                                        const std::string& heightField = DefaultHeightField);

// Writes the height field of a raster grid as a float32 GeoTIFF: north-up, the pixels that are
// not filling, cells that are neither measured nor filled as the nodata value -9999, the
// coordinate system where known. Written beside the target and renamed over it when complete.
// Throws Las::Error naming the file and the problem.
void writeGeoTiff(const std::string& path, const Tressel::Grid& raster,
                  const std::string& heightField = DefaultHeightField);

// Settings of a ground raster made from a cloud.
struct GroundRasterSettings {
  double cellSize = 1.0;                        // edge of a cell; cells at multiples of it
  Vantor::MultiRange<double> classes{"2"};      // the ground classes
  std::size_t fragmentCells = 256;              // cells of a fragment along x and y
  std::string heightField = DefaultHeightField; // the field of the heights
  int fillRings = 5; // an empty cell is filled from the measured cells at most this many rings
                     // of cells away; beyond, it has no data
};

// A ground raster of the cloud's points of the ground classes: pixels at multiples of the cell
// size covering all the cloud's points, each the lowest ground z of the points in it (Measured);
// an empty
// cell takes the inverse-distance-weighted mean of the measured cells in the nearest ring around
// it that holds any, up to fillRings rings (Filled), else NoData. The cloud's LAS coordinate
// system travels along. Throws Las::Error when no point is of the classes.
Basalt::StrongPtr<Tressel::Grid> groundRaster(const Tressel::Grid& cloud,
                                              const GroundRasterSettings& settings);

// A coordinate system as GDAL reads it, with what a user checks first.
struct CoordinateSystem {
  std::string wkt;  // WKT 1, as GDAL writes it
  int epsg = 0;     // its EPSG code, or that of the registry's entry PROJ finds equivalent; 0: none
  std::string name; // the EPSG entry's name ("NAD83 / Nebraska (ftUS)"), else its own
  std::string unit; // of the horizontal axes ("metre", "US survey foot", "degree")
};

// What GDAL makes of WKT; nullopt when the text is empty or GDAL cannot read it.
std::optional<CoordinateSystem> coordinateSystemOfWkt(const std::string& wkt);

// The coordinate system that the records of a LAS file give: the "LASF_Projection" WKT record
// (2112) or the GeoTIFF keys (34735, with the numbers of 34736 and the texts of 34737, read by
// GDAL as a GeoTIFF would hold them). The file's global encoding says which one counts, as LAS 1.4
// has it: the WKT when its bit 4 is set, else the keys; the other serves when that one is missing
// or unreadable. nullopt when the file has neither or GDAL can read neither.
std::optional<CoordinateSystem> coordinateSystemOf(const Las::Header& header,
                                                   const std::vector<Las::Vlr>& vlrs,
                                                   const std::vector<Las::Vlr>& evlrs);

// The coordinate system of a cloud read from LAS, as WKT (see above); empty when unknown.
std::string coordinateSystemOf(const Tressel::Grid& cloud);

// What a raster grid holds, without its filling cells.
struct RasterSummary {
  std::size_t columns = 0, rows = 0;
  double cellSizeX = 0, cellSizeY = 0;
  std::array<double, 2> min{0, 0}, max{0, 0};   // the outer edges of the pixels in x and y
  std::array<std::uint64_t, 256> cellTypes{};   // cells per "CellType" value
  std::optional<std::array<double, 2>> heights; // the lowest and highest height of a cell
  std::string coordinateSystem;                 // WKT, empty when unknown
};

// Summarizes a raster grid (Measured, Filled and NoData cells, heights in heightField where it
// has one); nullopt for a grid that is not a raster (a point cloud).
std::optional<RasterSummary> summarizeRaster(const Tressel::Grid& grid,
                                             const std::string& heightField = DefaultHeightField);

} // namespace Quorvel::Raster
