// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: rasters in and out. Any raster GDAL reads (GeoTIFF, ASCII grid, ...) becomes a
// raster grid the library prepares and maps; raster grids are written back as GeoTIFF with their
// coordinate system.
//
// Raster grids are laid out as quorvel/raster/raster.hpp describes.
#pragma once

#include "io/las.hpp"
#include "quorvel/filters/filters.hpp"
#include "quorvel/raster/raster.hpp"
#include "quorvel/render/render.hpp"

#include "tressel/grid.hpp"
#include "vantor/multi_range.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Quorvel::Raster {

// Opens the GDAL module (rasters, coordinate systems, polygons) and the bundle module (HDF5) on
// a thread of their own, each where `gdal` or `bundles` says a run will surely need it: the
// loader's work, about a hundred libraries and their symbols (50 ms for both), then overlaps
// the reading of the cloud instead of following it. The thread does nothing else; a module that
// cannot be opened is reported by the first function that needs it, as without this. Joined
// when dropped; no thread when neither is asked for.
class OpenedAhead {
public:
  OpenedAhead(bool gdal, bool bundles);
  ~OpenedAhead();
  OpenedAhead(const OpenedAhead&) = delete;
  OpenedAhead& operator=(const OpenedAhead&) = delete;

private:
  std::thread thread_;
};

// Whether a path names a raster file (.tif, .tiff, .asc, .img, .vrt) rather than a cloud.
bool isRasterFile(const std::string& path);

// Reads band 1 of a north-up raster: one cell per pixel, nodata pixels (GDAL's nodata value or
// NaN) as NoData, fragments of fragmentCells x fragmentCells cells (fewer when the raster is
// smaller). Throws Las::Error naming the file and the problem (missing, not a raster, rotated).
Basalt::StrongPtr<Tressel::Grid> import(const std::string& path, std::size_t fragmentCells = 256,
                                        const std::string& heightField = DefaultHeightField);

// Writes the height field of a raster grid as a float32 GeoTIFF: north-up, one pixel per cell,
// cells that are neither measured nor filled as the nodata value -9999, the coordinate system
// where known (with its vertical system: a compound system's vertical part becomes the GeoTIFF's
// vertical keys). A coordinate system GDAL cannot read goes to warn and the GeoTIFF has none.
// Written beside the target and renamed over it when complete. Throws Las::Error naming the file
// and the problem.
void writeGeoTiff(const std::string& path, const Tressel::Grid& raster,
                  const std::string& heightField = DefaultHeightField, const Las::Warn& warn = {});

// Writes to `to` the cells of the north-up raster `from` that overlap area (x0, y0, x1, y1) by
// more than a touch, as a GeoTIFF that appears when complete; false, writing nothing, when none
// does. A catalogue's chunks cut their rasters so: the chunks of a grid aligned with the cells
// then take disjoint cells. Throws Las::Error naming the file.
bool cutGeoTiff(const std::string& from, const std::string& to, const std::array<double, 4>& area);

// Writes a GDAL VRT mosaic of rasters of one cell size and coordinate system at path (which
// appears when complete). Throws Las::Error naming the file.
void writeMosaic(const std::string& path, const std::vector<std::string>& files);

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

// What tells the coordinate system of a LAS file apart, the same for files of one system however
// their records write it: "EPSG:2229 (NAD83 / California zone 5 (ftUS))", the WKT of a system
// without an EPSG code, or "no coordinate system".
std::string coordinateSystemKey(const Las::FileInfo& info);

// The coordinate system of a cloud read from LAS, as WKT (see above); empty when unknown. A file
// whose records hold none that GDAL reads (an empty WKT record) goes to warn.
std::string coordinateSystemOf(const Tressel::Grid& cloud, const Las::Warn& warn = {});

// A file of a survey as an index shows it: the x-y footprint of its header's bounds and its facts.
struct Footprint {
  std::string file;
  std::string type; // "las", "laz" (COPC files are LAZ)
  std::uint64_t points = 0;
  std::array<double, 3> min{0, 0, 0}, max{0, 0, 0};
  int pointFormat = 0;
};

// Writes the footprints as rectangles to a GeoPackage, layer "footprints" (fields file, type,
// points, point_format, min_z, max_z), in the coordinate system cs (nullopt: none; by its EPSG
// code where it has one, so that QGIS names it), for QGIS; the file is replaced only when
// complete. Throws Las::Error naming path and GDAL's message.
void writeFootprints(const std::string& path, const std::vector<Footprint>& footprints,
                     const std::optional<CoordinateSystem>& cs);

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

// Writes a picture (quorvel/render/render.hpp) by the path's extension: ".png" through GDAL's
// PNG driver, with a world file beside it (worldFilePath) when the picture is georeferenced, so
// that GIS tools place it; ".tif" or ".tiff" as a GeoTIFF of four bands (RGB and alpha) with its
// georeference and the coordinate system wkt (empty: none). Each file replaces its target only
// when complete. Throws Las::Error naming the file and the problem.
void writePicture(const std::string& path, const Image& image, const std::string& wkt = {});

// A small top view by classification of the cloud (Quorvel::thumbnail), its longer side size
// pixels, written as writePicture writes it with the cloud's coordinate system: a tile's picture
// in an overview of a survey.
void writeThumbnail(const std::string& path, const Tressel::Grid& cloud, std::size_t size = 256);

// The world file of a PNG: the path with ".pgw" in place of its extension.
std::string worldFilePath(const std::string& path);

// The heights of a raster grid for a picture (NaN where a cell is neither measured nor filled);
// throws Las::Error naming path when the grid is not a raster or lacks the fields.
HeightGrid heightsOf(const Tressel::Grid& raster, const std::string& heightField,
                     const std::string& path);

// The polygons of a vector file GDAL reads (GeoPackage, GeoJSON, Shapefile, ...): every feature
// of the layer (the first when layer is empty) that passes OGR's attribute filter (an SQL WHERE
// clause; empty: all), polygons and multipolygons with their holes, carried into the system
// cloudWkt when the layer has another one (cloudWkt empty: taken as they are). Throws Las::Error
// naming the file and the problem (no such layer, a refused filter, a feature that is no
// polygon).
std::vector<Polygon> readPolygons(const std::string& path, const std::string& layer,
                                  const std::string& filter, const std::string& cloudWkt);

// A transform between two coordinate systems given as users type them (EPSG:n, WKT, PROJ
// strings), x-y in easting (longitude) first order; z changes too where the vertical systems
// differ and PROJ has the grid.
struct Transformation {
  TransformFactory factory; // one transform per thread
  CoordinateSystem target;
};
// Throws Las::Error naming the text GDAL cannot read or the pair it has no transform for.
Transformation transformation(const std::string& from, const std::string& to);

// Replaces the coordinate-system records of a LAS origin by cs: a WKT record (2112, with the
// global encoding's WKT bit) for LAS 1.4, GeoTIFF keys by EPSG code before; throws Las::Error for
// a system without an EPSG code in a file before 1.4.
void setCoordinateSystem(Las::FileInfo& info, const CoordinateSystem& cs);

} // namespace Quorvel::Raster
