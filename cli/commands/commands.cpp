// SPDX-License-Identifier: BSD-3-Clause
// quorvel host: the table of commands. A new command is one file of cli/commands/ with its
// factory, declared in command.hpp and listed here.
#include "cli/commands/command.hpp"

namespace Quorvel::Cli {

const std::vector<CommandEntry>& commands() {
  static const std::vector<CommandEntry> table = {
      {"info", "what files hold: LAS header facts, CRS, returns, fields, classes (--json)",
       makeInfo},
      {"convert", "LAS/LAZ <-> bundle (.h5), by extension", makeConvert},
      {"tile", "LAS/LAZ files of any size cut into square tiles, with buffers", makeTile},
      {"merge", "LAS/LAZ files joined into one, of any size", makeMerge},
      {"index", "the footprints of LAS/LAZ files from their headers, as GeoPackage or GeoJSON",
       makeIndex},
      {"compare", "agreement of a per-point field, overall and per class", makeCompare},
      {"transfer", "classes from SOURCE onto TARGET by nearest neighbours", makeTransfer},
      {"cellsize", "voxel-density cell size of every point", makeCellSize},
      {"date", "acquisition date and GPS week of file names", makeDate},
      {"pipeline", "several commands on one cloud, read once and written once", makePipeline},
      {"catalog", "a pipeline over a survey's files, chunk by chunk with buffers, on Dask",
       makeCatalog},
      {"ground", "ground points of an unclassified cloud (simple morphological filter)",
       makeGround},
      {"regress", "classes by the distance from local planes, in rounds (ground growing)",
       makeRegress},
      {"extrapolate", "spread a class from seeds into nearby points, in rounds", makeExtrapolate},
      {"relheight", "height above the lowest point and share below, in x-y squares", makeRelHeight},
      {"shapefactors", "planarity, linearity, sphericity and normals of every point",
       makeShapeFactors},
      {"weights", "how much every point matters when thinning (from shape factors)", makeWeights},
      {"reduce", "thin a cloud to the points of highest weight", makeReduce},
      {"dtm", "a ground raster from the ground points of a cloud (bundle or GeoTIFF)", makeDtm},
      {"dsm", "a surface model: the highest point of every cell (bundle or GeoTIFF)", makeDsm},
      {"chm", "a canopy height model: the surface model above a ground raster", makeChm},
      {"density", "points per square unit of every cell (bundle or GeoTIFF)", makeDensity},
      {"raster", "rasters in and out: import any GDAL raster, export as GeoTIFF", makeRaster},
      {"map", "a ground raster onto clouds: height-band classes or heights above ground", makeMap},
      {"mapfield", "a field of SOURCE onto the cells of a TARGET raster, by nearest x-y",
       makeMapField},
      {"render", "pictures of clouds and rasters: top views, profiles, hillshades (PNG, GeoTIFF)",
       makeRender},
      {"select", "the points whose value in a field lies in ranges, or where an expression holds",
       makeSelect},
      {"assign", "values given to fields where an expression holds (new fields on request)",
       makeAssign},
      {"crop", "the points inside a box or polygons of a vector file (or outside)", makeCrop},
      {"outliers", "isolated points (statistical or radius rule), classified or removed",
       makeOutliers},
      {"thin", "fewer points: one per voxel, a seeded random fraction or every N-th", makeThin},
      {"reproject", "positions into another coordinate system (EPSG, WKT, PROJ)", makeReproject},
  };
  return table;
}

} // namespace Quorvel::Cli
