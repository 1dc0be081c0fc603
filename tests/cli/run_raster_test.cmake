# SPDX-License-Identifier: BSD-3-Clause
# quorvel dtm, raster, map and mapfield on the sample data: a ground raster as bundle and as
# GeoTIFF mapping to the same heights, height bands on one cloud and on a list of bundle files
# giving the same classes, a field carried onto a raster, and the refusals.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

# The sample's ground covers its west third: the gaps are filled from up to 100 cells away, so
# every one of the 86 x 76 cells has a height (the points' 85 x 75 cells and one column and row
# past them, whose centres bound the points of the last ones).
quorvel(0 "" dtm ${data}/sample_c.las -o ${WORK_DIR}/dtm.h5 --cell 1 --fill-rings 100)
quorvel(0 "cells: 86 x 76 (6536)\ncell size: 1 1\n" info ${WORK_DIR}/dtm.h5)
quorvel(0 "" dtm ${data}/sample_c.las -o ${WORK_DIR}/dtm.tif --cell 1 --fill-rings 100)
# Rasters are described as cells, never as points. The bundle tells measured from filled cells
# (372 and 6164); a GeoTIFF holds heights only, so each of its cells with a height is measured.
quorvel(0 "cell types: 0:372 4:6164\n" info ${WORK_DIR}/dtm.h5)
quorvel(0 "type: raster\ncells: 86 x 76 (6536)\ncell size: 1 1\nbounds: 674521.000 1206740.000 - 674607.000 1206816.000\ncell types: 0:6536\n"
        info ${WORK_DIR}/dtm.tif)
if(quorvel_output MATCHES "points")
  message(FATAL_ERROR "a raster described as points:\n${quorvel_output}")
endif()
quorvel(0 "multi index of raster: 86x76x1\n" map ${data}/sample_c.las ${WORK_DIR}/dtm.h5
        -o ${WORK_DIR}/from-bundle.las --height --verbose)
quorvel(0 "CanopyHeight: float32" info ${WORK_DIR}/from-bundle.las)
quorvel(0 "raster bbox: (674522 ,1.20674e+06 ,0) | (674606 ,1.20682e+06 ,0)\n" map
        ${data}/sample_c.las ${WORK_DIR}/dtm.tif -o ${WORK_DIR}/from-tiff.las --height --verbose)
expect_same_file(${WORK_DIR}/from-bundle.las ${WORK_DIR}/from-tiff.las "heights of bundle and GeoTIFF")

# A GeoTIFF imported and exported again maps to the same heights; in fragments of 16 x 16 cells
# the blocks stop at fragment edges, and so do the planes.
quorvel(0 "" raster import ${WORK_DIR}/dtm.tif -o ${WORK_DIR}/imported.h5)
quorvel(0 "" raster export ${WORK_DIR}/imported.h5 -o ${WORK_DIR}/exported.tif)
quorvel(0 "" map ${data}/sample_c.las ${WORK_DIR}/exported.tif -o ${WORK_DIR}/from-export.las
        --height)
expect_same_file(${WORK_DIR}/from-bundle.las ${WORK_DIR}/from-export.las "heights after export")
quorvel(0 "" raster import ${WORK_DIR}/dtm.tif -o ${WORK_DIR}/tiles.h5 --fragment-cells 16)
quorvel(0 "# of raster fragments: 6x5x1\n" map ${data}/sample_c.las ${WORK_DIR}/tiles.h5
        -o ${WORK_DIR}/from-tiles.las --height --verbose)

# Height bands: below 0.5 m nothing matches and the points stay unclassified (0); every point
# lies within the raster's box of cell centres (shifted by half a cell), so none keeps its class.
set(bands --bands "0.5:2=3,2:5=4,5:100=5" --unclassify)
quorvel(0 "" map ${data}/sample_c.las ${WORK_DIR}/dtm.h5 -o ${WORK_DIR}/banded.las ${bands})
quorvel(0 "classes: 0:1406 3:140 4:317 5:12545\n" info ${WORK_DIR}/banded.las)
quorvel(0 "" convert ${data}/sample_c.las ${WORK_DIR}/files.h5)
quorvel(0 "" map --files ${WORK_DIR}/files.h5 --raster ${WORK_DIR}/dtm.h5 ${bands})
quorvel(0 "classes: 0:1406 3:140 4:317 5:12545\n" info ${WORK_DIR}/files.h5)

# The nearest point's intensity within 1 m onto the raster's cells, as a GeoTIFF band.
quorvel(0 "" mapfield ${data}/sample_c.las ${WORK_DIR}/dtm.h5 -o ${WORK_DIR}/near.tif
        --source-field Intensity --target-field NearIntensity --radius 1)
quorvel(0 "" raster import ${WORK_DIR}/near.tif -o ${WORK_DIR}/near.h5
        --height-field NearIntensity)
quorvel(0 "NearIntensity: float32" info ${WORK_DIR}/near.h5)

quorvel(1 "no point of the classes 9.000000:9.000000" dtm ${data}/sample_c.las
        -o ${WORK_DIR}/none.h5 --cell 1 --classes 9)
quorvel(1 "missing.tif: no such file" raster import ${WORK_DIR}/missing.tif -o ${WORK_DIR}/x.h5)
quorvel(2 "the file-list form takes a raster bundle" map --files ${WORK_DIR}/files.h5
        --raster ${WORK_DIR}/dtm.tif)
quorvel(2 "names no raster file type" dtm ${data}/sample_c.las -o ${WORK_DIR}/dtm.las --cell 1)
quorvel(2 "RASTER is required" map ${data}/sample_c.las -o ${WORK_DIR}/x.las --height)
quorvel(2 "--cell is required" dtm ${data}/sample_c.las -o ${WORK_DIR}/x.h5)

# A GeoTIFF write that fails (here a file-size limit; a full disk alike) is an error, and the
# earlier file stays as it was instead of being replaced by a truncated one. The limit lies at
# four fifths of the whole file (15 KB), so that the write fails when GDAL flushes what it held.
quorvel(0 "" dtm ${data}/sample_c.las -o ${WORK_DIR}/kept.tif --cell 2 --quiet)
quorvel(0 "" dtm ${data}/sample_c.las -o ${WORK_DIR}/whole.tif --cell 0.3 --fill-rings 5 --quiet)
file(SIZE ${WORK_DIR}/whole.tif whole)
math(EXPR blocks "${whole} * 4 / 5 / 1024")
file(READ ${WORK_DIR}/kept.tif before HEX)
execute_process(
  COMMAND bash -c "ulimit -f ${blocks}; exec \"$0\" dtm \"$1\" -o \"$2\" --cell 0.3 --fill-rings 5"
          ${QUORVEL} ${data}/sample_c.las ${WORK_DIR}/kept.tif
  RESULT_VARIABLE code ERROR_VARIABLE err)
if(NOT code EQUAL 1 OR NOT err MATCHES "kept.tif: cannot write the GeoTIFF")
  message(FATAL_ERROR "a GeoTIFF write beyond the file-size limit gave exit ${code}:\n${err}")
endif()
file(READ ${WORK_DIR}/kept.tif after HEX)
if(NOT before STREQUAL after)
  message(FATAL_ERROR "a failed GeoTIFF write changed the earlier file")
endif()
