// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: ground rasters made from clouds and mapped onto point clouds, and fields carried from
// grid to grid.
//
// A raster grid, as ground rasters are made here and raster files read: a regularly fragmented
// uniform grid of one layer (Tressel::UniformGridView); cell (i, j) lies at origin + (i, j) * cell
// size, the centre of its pixel, y growing with j; a fragment holds at most the same number of
// cells along each axis, the last ones only the pixels left, so that there is exactly one cell per
// pixel and the raster's box is that of its pixels' centres. Per cell: "CellType" (unsigned
// 8-bit: Measured, Filled or NoData) and the height (float32, "Height" unless named otherwise).
// The grid's attributes "RasterColumns" and "RasterRows" give the pixels that are not filling,
// "CoordinateSystem" the coordinate system as WKT (empty when unknown).
//
// A raster is a regularly fragmented uniform 3-D grid (Tressel::UniformGridView) whose cells
// carry a "CellType" (unsigned 8-bit; 0 and 4 are ground cells, every other value is left alone)
// and a ground height (float or double, named by the box). prepareRaster gives every ground cell
// the plane through its 3 x 3 block of ground cells and the block's highest and lowest ground;
// mapData then finds the cell under every point of a cloud and either assigns classes by height
// bands above that ground or writes the point's height above it ("CanopyHeight").
#pragma once

#include "quorvel/core/fields.hpp"

#include "basalt/strong_ptr.hpp"
#include "tressel/grid.hpp"
#include "vantor/bounding_box.hpp"
#include "vantor/multi_range.hpp"
#include "vantor/physical_space.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace Quorvel {

namespace Raster {

// Cell types of a raster grid: the mapping uses exactly the measured and filled cells.
inline constexpr std::uint8_t Measured = 0; // a height from data
inline constexpr std::uint8_t NoData = 1;   // no height (nodata pixels, filling, far from data)
inline constexpr std::uint8_t Filled = 4;   // a height filled in from the surrounding cells

inline constexpr const char* DefaultHeightField = "Height";

} // namespace Raster

// A band of heights above the ground and the class it assigns.
struct HeightBand {
  double low = 0.0;
  double high = 0.0;
  std::uint32_t cls = 0;
};

// A band that applies only to points whose current class c lies in classFrom <= c <= classTo.
struct ClassConditionalBand {
  std::uint32_t cls = 0;
  double low = 0.0;
  double high = 0.0;
  double classFrom = 0.0;
  double classTo = 0.0;
};

// Settings shared by raster preparation and mapping; prepareRaster stores the raster's box.
struct MapRasterOnPointCloudParameterBox {
  // Bands decide by the height above the cell's ground alone (mapClassificationStep) instead of
  // also by the distance from the cell's plane.
  bool step = false;
  // Every mapped point's class is set to 0 before the bands assign.
  bool unclassify = false;
  // Writes "CanopyHeight" (height above the cell's plane) instead of assigning classes.
  bool height = false;
  // The raster's field of ground heights.
  std::string heightfieldname = "Height";
  // Edge lengths of one raster cell along x, y, z; an axis with 0 or less is not indexed (a
  // raster of one layer has z 0).
  std::array<double, 3> cellsize{1.0, 1.0, 0.0};
  // Cells of one raster fragment along x, y, z.
  std::array<std::uint64_t, 3> rastersize{256, 256, 1};
  // Classes that the mapping never changes.
  Vantor::MultiRange<double> constantclasses;
  // The whole raster's box, set by prepareRaster.
  Basalt::StrongPtr<Vantor::BoundingBox> raster_bbox;
  // Height bands in list order; a later match overrides an earlier one.
  std::vector<HeightBand> assignment;
  // Bands applied after `assignment`, each only to points of its class interval (read anew for
  // every band). Not printed.
  std::vector<ClassConditionalBand> class_assignment;

  // "constantclasses: ", "cellsize: (x ,y ,z)", "height: ", "step: ", "heightfieldname: ",
  // "unclassify: ", "rastersize: XxYxZ", "raster bbox: min | max", then "assignment: " and one
  // "low:high=class" line per band.
  void print() const;
  static constexpr auto fields();
  // The forms of print(): "(x ,y ,z)", "XxYxZ", "(min) | (max)" (empty without a box), and the
  // label on a line of its own followed by one "low:high=class" line per band.
  static void printCellSize(std::string_view label, const std::array<double, 3>& size);
  static void printRasterSize(std::string_view label, const std::array<std::uint64_t, 3>& size);
  static void printRasterBox(std::string_view label,
                             const Basalt::StrongPtr<Vantor::BoundingBox>& box);
  static void printBands(std::string_view label, const std::vector<HeightBand>& bands);
};

// The command line binds --bands and --class-bands by hand (texts of bands); the raster's layout
// and box come from the raster.
constexpr auto MapRasterOnPointCloudParameterBox::fields() {
  using B = MapRasterOnPointCloudParameterBox;
  return describeBox(
      "MapRasterOnPointCloudParameterBox",
      field(&B::step, "step", "", "step: ", "bands by the height above the cell's ground alone")
          .option("--step", "bands by the height above the cell's ground alone"),
      field(&B::unclassify, "unclassify", "",
            "unclassify: ", "every mapped point's class set to 0 first")
          .option("--unclassify", "set every mapped point's class to 0 first"),
      field(&B::height, "height", "",
            "height: ", "write \"CanopyHeight\" (metres above the cell's plane) instead of classes")
          .option("--height",
                  "write \"CanopyHeight\" (metres above the ground) instead of classes"),
      field(&B::heightfieldname, "heightfieldname", "",
            "heightfieldname: ", "the raster's field of ground heights")
          .option("--height-field", "the raster's field of ground heights"),
      field(&B::cellsize, "cellsize", "m",
            "cellsize: ", "edge of a raster cell along x, y, z in metres (0: axis not indexed)")
          .printedBy(&B::printCellSize),
      field(&B::rastersize, "rastersize", "cells",
            "rastersize: ", "cells of a raster fragment along x, y, z")
          .printedBy(&B::printRasterSize),
      field(&B::constantclasses, "constantclasses", "",
            "constantclasses: ", "classes the mapping never changes")
          .option("--constant-classes",
                  "classes never changed (class numbers; a point of such a class that would be "
                  "mapped is reported)"),
      field(&B::raster_bbox, "raster_bbox", "m", "raster bbox: ",
            "the whole raster's box ((min), (max)) in metres, set by prepareRaster")
          .printedBy(&B::printRasterBox),
      field(&B::assignment, "assignment", "m", "assignment: ",
            "height bands [(low, high, class)] in metres above the ground; later ones override")
          .printedBy(&B::printBands),
      // Not printed.
      field(&B::class_assignment, "class_assignment", "m", "",
            "bands for some classes only [(class, low, high, from, to)]: heights in metres, "
            "points of classes from..to"));
}

// Sets box.cellsize and box.rastersize from the raster's uniform layout (what prepareRaster and
// mapData expect the caller to have set); false, leaving the box alone, for a grid without one.
bool takeRasterLayout(const Tressel::Grid& raster, MapRasterOnPointCloudParameterBox& box);

// Loads the first grid of the bundle file as the raster, fills "PlanarRegression" (the height
// plane (a, b, c) of the cell's 3 x 3 block, (0, 0, 1e7) where no plane was fitted), "MaxGround"
// and "MinGround" (NaN where not computed) for every cell of type 0 or 4 from the ground cells of
// its block inside its own fragment, and stores the raster's box in box.raster_bbox. False, after
// its message, on any failure.
bool prepareRaster(const std::string& fileName, Basalt::StrongPtr<Tressel::Grid>& raster,
                   MapRasterOnPointCloudParameterBox& box);
// The same for a raster grid already loaded (the first grid of a bundle, or one made in memory).
bool prepareRaster(const Basalt::StrongPtr<Tressel::Grid>& raster,
                   MapRasterOnPointCloudParameterBox& box);

// The band rule with both tests: the plane test (when the plane exists: plane c below 1e7) needs
// low <= distance from the plane <= high and minGround + low < p.z < high + maxGround; then the
// ground-height test low + groundHeight < p.z < groundHeight + high. Either test that holds sets
// cls_out = cls (8 bits); otherwise cls_out stays.
void mapClassification(const double& low, const double& high,
                       const Vantor::PhysicalSpace::vector& planeNormal,
                       const Vantor::PhysicalSpace::point& p, const double& maxGround,
                       const double& minGround, const double& groundHeight, const int& cls,
                       std::uint8_t& cls_out);

// The step rule: cls_out = cls when low + groundHeight < p.z < groundHeight + high.
void mapClassificationStep(const double& low, const double& high,
                           const Vantor::PhysicalSpace::point& p, const double& groundHeight,
                           const int& cls, std::uint8_t& cls_out);

// Maps a prepared raster onto every point of the cloud: classes by the box's bands, or with
// box.height the "CanopyHeight" above the cell's plane (-1000 where the cell has none). Points
// outside the raster, of constant classes or of classes outside the class-conditional bands keep
// their class. False when the cloud has no chart, no positions or no points.
bool mapData(const Basalt::StrongPtr<Tressel::Grid>& pointCloud,
             const Basalt::StrongPtr<Tressel::Grid>& raster,
             const MapRasterOnPointCloudParameterBox& box);

// Prepares rasterFile and maps it onto every grid of every bundle file named, writing each file
// back in place (positions in single precision, numerically shifted) once all its grids are
// mapped; a file that fails keeps its old contents and the next file goes on. False when the
// raster or any file failed.
bool mapData(std::vector<std::string> files, const std::string& rasterFile,
             MapRasterOnPointCloudParameterBox& box);

// Gives every target point the value of sourceFieldName at the nearest source point in x and y
// within radius (targetFieldName, float, a 3-D array per target fragment shaped like its
// positions; fragments of other ranks are reported and left out); points with no source point
// within radius get NaN. Returns the error text of a missing input, empty on success.
std::string mapSourceToTarget(const Tressel::Grid& source, std::string sourceFieldName,
                              Tressel::Grid& target, std::string targetFieldName, double radius);

// Settings of a ground raster made from the ground points of a cloud.
struct GroundRasterParameterBox {
  // Edge of a cell in the cloud's units (metres), cells at multiples of it; positive, finite.
  double cell_size = 1.0;
  // The ground classes, class numbers 0 to 255.
  Vantor::MultiRange<double> classes{"2"};
  // How a cell's height comes from the ground points: "lowest" (the lowest point in the cell),
  // "tin" (linear over a Delaunay triangulation of the points, at the cell's centre) or "idw"
  // (the points of the cell's 3 x 3 block weighted by their inverse squared distance from its
  // centre).
  std::string method = "lowest";
  // Rings of cells, 0 to 1000, within which an empty cell is filled from measured cells.
  int fill_rings = 5;
  // Cells of a raster fragment along x and y, 1 to 65536.
  std::size_t fragment_cells = 256;
  // The raster's field of the heights (float32, in the cloud's units).
  std::string height_field = Raster::DefaultHeightField;

  // "cell size: ", "classes: ", "method: ", "fill rings: ", "fragment cells: ", "height field: "
  // lines.
  void print() const;
  static constexpr auto fields();
};

constexpr auto GroundRasterParameterBox::fields() {
  using B = GroundRasterParameterBox;
  return describeBox(
      "GroundRasterParameterBox",
      field(&B::cell_size, "cell_size", "m", "cell size: ", "edge of a cell in metres, positive")
          .option("--cell", "edge of a cell, in metres (the cloud's units)"),
      field(&B::classes, "classes", "", "classes: ", "the ground classes")
          .option("--classes", "the ground classes (class numbers)"),
      field(&B::method, "method", "", "method: ", "lowest, tin or idw")
          .option("--method", "lowest, tin or idw"),
      field(&B::fill_rings, "fill_rings", "cells",
            "fill rings: ", "how far gaps are filled, in cells (0 to 1000)")
          .option("--fill-rings", "how far gaps are filled, in cells (0 to 1000)"),
      field(&B::fragment_cells, "fragment_cells", "cells",
            "fragment cells: ", "cells of a fragment along x and y")
          .option("--fragment-cells", "cells of a fragment along x and y"),
      field(&B::height_field, "height_field", "",
            "height field: ", "the raster's field of the heights")
          .option("--height-field", "the field of the heights"));
}

// A ground raster of the cloud's points of the box's classes: pixels at multiples of the cell
// size covering the cloud so that every point lies in a pixel, with one column and one row past
// the pixels of the highest points (the layout of earlier rasters); each pixel's height by the
// box's method (Measured: the lowest ground z of the points in it, the TIN at its centre inside the
// triangulation's hull, or the inverse-distance mean where its 3 x 3 block holds ground); an empty
// cell takes the inverse-distance-weighted mean of the measured cells in the nearest ring around it
// that holds any, up to fill_rings rings (Filled), else NoData; a raster grid as above, with
// coordinateSystem (WKT, empty when unknown) as its "CoordinateSystem". Throws std::runtime_error
// naming the problem: a cell size that is not positive, an unknown method, a cloud without finite
// points, more cells than cellBudget() (before anything is sized), no point of the classes.
Basalt::StrongPtr<Tressel::Grid> groundRaster(const Tressel::Grid& cloud,
                                              const GroundRasterParameterBox& box,
                                              const std::string& coordinateSystem = {});

// Sets the "CoordinateSystem" (WKT, empty when unknown) of a raster made here, for a caller that
// learns it after making the raster (a host that opens GDAL to read it while the raster is made).
void setRasterCoordinateSystem(Tressel::Grid& raster, const std::string& coordinateSystem);

// Settings of the surfaces made from a cloud: the surface model (highest point per cell), the
// density and the canopy height above a ground raster.
struct SurfaceParameterBox {
  // Edge of a cell in the cloud's units (metres), cells at multiples of it; positive, finite.
  double cell_size = 1.0;
  // The classes of the points taken, class numbers 0 to 255; empty: every point.
  Vantor::MultiRange<double> classes;
  // Only first returns (ReturnNumber 1; a cloud without return numbers has none).
  bool first_returns = false;
  // Rings of cells, 0 to 1000, within which a cell without points is filled from the cells with
  // points (surface and canopy height; the density of such a cell is 0).
  int fill_rings = 0;
  // Canopy height: a cell more than this below the median of its neighbours takes the median
  // (pit-free smoothing), in the cloud's units; 0: none.
  double pit_depth = 0.0;
  // Cells of a raster fragment along x and y, 1 to 65536.
  std::size_t fragment_cells = 256;
  // The raster's field of the values (float32).
  std::string height_field = Raster::DefaultHeightField;
  // Canopy height: the ground raster's field of the ground heights.
  std::string ground_field = Raster::DefaultHeightField;

  // "cell size: ", "classes: ", "first returns: ", "fill rings: ", "pit depth: ",
  // "fragment cells: ", "height field: ", "ground field: " lines.
  void print() const;
  static constexpr auto fields();
};

constexpr auto SurfaceParameterBox::fields() {
  using B = SurfaceParameterBox;
  return describeBox(
      "SurfaceParameterBox",
      field(&B::cell_size, "cell_size", "m", "cell size: ", "edge of a cell in metres, positive")
          .option("--cell", "edge of a cell, in metres (the cloud's units)"),
      field(&B::classes, "classes", "", "classes: ", "the classes of the points taken (empty: all)")
          .option("--classes", "the classes of the points taken (default: all)"),
      field(&B::first_returns, "first_returns", "", "first returns: ", "first returns only")
          .option("--first-returns", "first returns only"),
      field(&B::fill_rings, "fill_rings", "cells",
            "fill rings: ", "how far cells without points are filled, in cells (0 to 1000)")
          .option("--fill-rings", "how far cells without points are filled, in cells (0 to 1000)"),
      field(&B::pit_depth, "pit_depth", "m", "pit depth: ",
            "canopy height: a cell this far below its neighbours' median takes it (0: none)")
          .option("--pit-depth", "a cell this far below the median of its neighbours takes the "
                                 "median, in metres (0: no smoothing)"),
      field(&B::fragment_cells, "fragment_cells", "cells",
            "fragment cells: ", "cells of a fragment along x and y")
          .option("--fragment-cells", "cells of a fragment along x and y"),
      field(&B::height_field, "height_field", "",
            "height field: ", "the raster's field of the values")
          .option("--height-field", "the field of the values"),
      field(&B::ground_field, "ground_field", "",
            "ground field: ", "canopy height: the ground raster's field of heights")
          .option("--ground-field", "the ground raster's field of heights"));
}

// The surface model: pixels as groundRaster lays them out, each the highest z of the box's points
// in it (Measured), cells without points filled up to fill_rings rings (Filled), else NoData.
// Throws std::runtime_error as groundRaster does, and when no point is taken.
Basalt::StrongPtr<Tressel::Grid> surfaceRaster(const Tressel::Grid& cloud,
                                               const SurfaceParameterBox& box,
                                               const std::string& coordinateSystem = {});

// The density: pixels as groundRaster lays them out, each the number of the box's points in it
// per square unit (points / cell_size^2), every cell Measured (0 where it has none).
Basalt::StrongPtr<Tressel::Grid> densityRaster(const Tressel::Grid& cloud,
                                               const SurfaceParameterBox& box,
                                               const std::string& coordinateSystem = {});

// The canopy height: the surface model less the ground height of the ground raster's cell whose
// pixel holds the cell's centre (its ground_field, cells of type Measured or Filled), negative
// heights clamped to 0; NoData where either is missing; pits filled when pit_depth > 0. Throws
// std::runtime_error naming the problem (a ground raster without cells or heights, no cell with
// both).
Basalt::StrongPtr<Tressel::Grid> canopyRaster(const Tressel::Grid& cloud,
                                              const Tressel::Grid& ground,
                                              const SurfaceParameterBox& box,
                                              const std::string& coordinateSystem = {});

} // namespace Quorvel
