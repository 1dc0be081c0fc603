# SPDX-License-Identifier: BSD-3-Clause
# End-to-end runs of the quorvel host on the sample data: each step's output is checked, and a
# failing command must leave no output file behind.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

quorvel(0 "classes: 2:1368 3:93 4:29 5:7 6:12525 11:2 14:45 31:339" info ${data}/sample_c.las)
quorvel(0 "points: 14408" info ${data}/sample_nc.las)

# The demo: classes of the thinned cloud onto the unclassified one, against the true classes.
quorvel(0 "quorvel transfer: 14408 points" transfer ${data}/sample_c_thin.las
        ${data}/sample_nc.las -o ${WORK_DIR}/transferred.las --bands 1)
quorvel(0 "agreement: 13669 of 14408 (94.87%)" compare ${WORK_DIR}/transferred.las
        ${data}/sample_c.las)
quorvel(0 "class 2: 1358 of 1368 (99.27%)" compare ${WORK_DIR}/transferred.las
        ${data}/sample_c.las)

# LAS -> bundle -> LAS keeps every class in its place.
quorvel(0 "quorvel convert: 14408 points" convert ${data}/sample_c.las ${WORK_DIR}/c.h5)
quorvel(0 "quorvel convert: 14408 points" convert ${WORK_DIR}/c.h5 ${WORK_DIR}/c.las)
quorvel(0 "agreement: 14408 of 14408 (100.00%)" compare ${WORK_DIR}/c.las ${data}/sample_c.las)

quorvel(0 "setCellSize: CellTensor for 14408 points in 4 fragments" --fragment-points 5000
        cellsize ${data}/sample_c.las -o ${WORK_DIR}/cells.las)
quorvel(0 "CellTensor: float32" info ${WORK_DIR}/cells.las)
quorvel(0 "scan_210315_134501.laz: 2021-03-15 13:45:01, day of week 1, gps week" date
        scan_210315_134501.laz)

# Failures: one line, a non-zero exit, no output file.
quorvel(1 "quorvel: error: ${WORK_DIR}/absent.las: no such file" transfer ${WORK_DIR}/absent.las
        ${data}/sample_nc.las -o ${WORK_DIR}/never.las)
file(WRITE ${WORK_DIR}/foreign.las "x,y,z\n")
quorvel(1 "not a LAS file" cellsize ${WORK_DIR}/foreign.las -o ${WORK_DIR}/never.las)
if(EXISTS ${WORK_DIR}/never.las)
  message(FATAL_ERROR "a failed command left an output file")
endif()
# Outputs that are no regular files are refused, for LAS and bundles alike.
file(MAKE_DIRECTORY ${WORK_DIR}/folder.las ${WORK_DIR}/folder.h5)
quorvel(1 "quorvel: error: ${WORK_DIR}/folder.las: is a directory" convert
        ${data}/sample_nc.las ${WORK_DIR}/folder.las)
quorvel(1 "quorvel: error: ${WORK_DIR}/folder.h5: is a directory"
        convert ${data}/sample_nc.las ${WORK_DIR}/folder.h5)

# Common options work before and after the command name; a file is one fragment by default.
quorvel(0 "fragments: 1" info ${data}/sample_c.las)
quorvel(0 "setCellSize: CellTensor for 14408 points in 4 fragments" cellsize
        ${data}/sample_c.las -o ${WORK_DIR}/cells.las --fragment-points 5000)
quorvel(0 "setCellSize: CellTensor for 14408 points in 1 fragments" cellsize
        ${data}/sample_c.las -o ${WORK_DIR}/cells.las)
quorvel(0 "threads: 1" --threads 1 transfer ${data}/sample_c_thin.las ${data}/sample_nc.las
        -o ${WORK_DIR}/t1.las --verbose)
quorvel(0 "threads: 2" --threads 1 transfer ${data}/sample_c_thin.las ${data}/sample_nc.las
        -o ${WORK_DIR}/t1.las --threads 2 --verbose)
quorvel(0 "dimension: 2" transfer --verbose --dimension 2 --bands 1 ${data}/sample_c_thin.las
        ${data}/sample_nc.las -o ${WORK_DIR}/t1.las)
quorvel(0 "" cellsize ${data}/sample_c.las -o ${WORK_DIR}/cells.las --quiet)
if(NOT quorvel_output STREQUAL "")
  message(FATAL_ERROR "--quiet still printed:\n${quorvel_output}")
endif()

# A command's help shows the defaults of its parameter box.
quorvel(0 "--dimension TEXT:{2, 3, 2D, 3D}=3" transfer --help)
foreach(default "--maxradius FLOAT:POSITIVE=250" "--threads INT=-1" "--field TEXT=Classification"
                "--source-classes TEXT=0:255" "--offset TEXT=0,0,0")
  string(FIND "${quorvel_output}" "${default}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "transfer --help does not show ${default}:\n${quorvel_output}")
  endif()
endforeach()

# Writing commands place LAS coordinates by --scale and --offset (or keep the input's).
quorvel(0 "quorvel convert" convert ${data}/sample_c.las ${WORK_DIR}/coarse.las --scale 0.5
        --offset 674000,1206000,600)
quorvel(0 "bbox: 674522.000 1206740.000 627.500 - 674605.500 1206815.000 656.000" info
        ${WORK_DIR}/coarse.las)
quorvel(0 "quorvel transfer" transfer ${data}/sample_c_thin.las ${data}/sample_nc.las -o
        ${WORK_DIR}/coarse.las --scale 0.5 --las-offset auto)
quorvel(0 "bbox: 674522.000 1206740.000 627.500 - 674605.500 1206815.000 656.000" info
        ${WORK_DIR}/coarse.las)
quorvel(2 "--scale: takes auto, one number or X,Y,Z, not \"0,1\"" convert
        ${data}/sample_c.las ${WORK_DIR}/never.las --scale 0,1)
quorvel(2 "--offset: \"x\" is not a finite number" cellsize ${data}/sample_c.las
        -o ${WORK_DIR}/never.las --offset 1,x,3)
# Every option value is checked before anything runs; usage errors exit with 2.
set(s ${data}/sample_c_thin.las)
set(t ${data}/sample_nc.las)
foreach(case
    "--offset;a,b,c;--offset: takes X,Y,Z of finite numbers, not \"a,b,c\""
    "--offset;nan,0,0;--offset: takes X,Y,Z of finite numbers, not \"nan,0,0\""
    "--source-classes;abc;--source-classes: \"abc\" is not a value or low:high of finite numbers"
    "--target-classes;2:5,nan:nan;--target-classes: \"nan:nan\" in \"2:5,nan:nan\" is not a value"
    "--source-classes;1e-5;--source-classes: \"1e-5\" is not a range the library reads"
    "--maxradius;-1;--maxradius: \"-1\" is not a positive finite number"
    "--bands;0.5=2,1=x;--bands: \"1=x\" in \"0.5=2,1=x\" is not a distance or distance=class"
    "--dimension;5;--dimension: \"5\" is not one of 2, 3, 2D, 3D")
  list(GET case 0 option)
  list(GET case 1 value)
  list(GET case 2 text)
  quorvel(2 "${text}" transfer ${s} ${t} -o ${WORK_DIR}/never.las ${option} ${value})
endforeach()
quorvel(2 "--radius: \"0\" is not a positive finite number" regress ${s} -o ${WORK_DIR}/never.las
        --radius 0)
quorvel(2 "--quantile: \"101\" is not a number from 0 to 100" regress ${s}
        -o ${WORK_DIR}/never.las --quantile 101)
quorvel(2 "--half-width: \"nan\" is not a positive finite number" relheight ${s}
        -o ${WORK_DIR}/never.las --half-width nan)
quorvel(2 "--output: \"${WORK_DIR}/never.dat\" names no file type the host writes" cellsize ${s}
        -o ${WORK_DIR}/never.dat)
quorvel(2 "OUT: \"${WORK_DIR}/never.bak\" names no file type" convert ${s} ${WORK_DIR}/never.bak)
quorvel(2 "quorvel: unknown command \"bogus\" (the commands: info, convert," bogus x)
if(EXISTS ${WORK_DIR}/never.las OR EXISTS ${WORK_DIR}/never.dat OR EXISTS ${WORK_DIR}/never.bak)
  message(FATAL_ERROR "a refused command wrote its output")
endif()
# Inputs that are no regular files are refused at once (a pipe used to block the reader).
execute_process(COMMAND mkfifo ${WORK_DIR}/pipe.las)
quorvel(1 "quorvel: error: ${WORK_DIR}/pipe.las: not a regular file" info ${WORK_DIR}/pipe.las)

# info: the header facts a LIDAR user checks first, as "key: value" lines.
quorvel(0 "file: ${data}/simple.laz\ntype: laz\nversion: 1.2\npoint format: 3\nrecord length: 34\npoints: 1065\npoints by return: 1:925 2:114 3:21 4:5 5:0\nfragments: 1\nscale: 0.01 0.01 0.01\noffset: 0 0 0\n"
        info ${data}/simple.laz)
foreach(line "crs: unknown\ngps time: 245370.417065 - 249783.162158 (GPS week time)\n"
             "vlrs:\n  laszip encoded 22204: " "density: ")
  string(FIND "${quorvel_output}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "info simple.laz lacks \"${line}\":\n${quorvel_output}")
  endif()
endforeach()
# The WKT record counts in a file whose global encoding says so, not its GeoTIFF keys (32104).
quorvel(0 "crs: NAD83(2011) / Nebraska (ftUS) (EPSG:6880)\ncrs unit: US survey foot\n" info
        ${data}/nebraska_wkt_geotiff.las)
# The records' return numbers are shown beside the header's where they differ.
quorvel(0 "points by return: 1:0 2:0 3:0 4:0 5:0\npoints by return (counted): 1:14272 2:130 3:5 4:1\n"
        info ${data}/sample_nc.las)
# Several files: blocks apart, then the total (the bounds of all, the classes added up); a
# directory: its LAS, LAZ and bundle files by name.
quorvel(0 "density: 2.307 points per square unit\n\ntotal: 2 files, 15473 points, bbox 635619.850 848899.700 406.590 - 674605.320 1206814.960 656.230, classes 1:789 2:1644 3:93 4:29 5:7 6:12525 11:2 14:45 31:339\n" info
        ${data}/simple.laz ${data}/sample_c.las)
# --brief: one line per file from its header, then the total without classes (never counted).
quorvel(0 "${data}/simple.laz: laz, 1065 points, bbox 635619.850 848899.700 406.590 - 638982.550 853535.430 586.380\n${data}/nebraska_wkt_geotiff.las: las, 25408 points, bbox 2445180.000 604300.000 1352.700 - 2445239.990 604339.980 1403.960, crs NAD83(2011) / Nebraska (ftUS)\ntotal: 2 files, 26473 points, bbox 635619.850 604300.000 406.590 - 2445239.990 853535.430 1403.960\n"
        info --brief ${data}/simple.laz ${data}/nebraska_wkt_geotiff.las)
file(MAKE_DIRECTORY ${WORK_DIR}/clouds ${WORK_DIR}/nothing)
file(COPY ${data}/sample_c_thin.las ${data}/simple.laz DESTINATION ${WORK_DIR}/clouds)
file(WRITE ${WORK_DIR}/clouds/notes.txt "not a cloud\n")
file(WRITE ${WORK_DIR}/nothing/notes.txt "not a cloud\n")
quorvel(0 "file: ${WORK_DIR}/clouds/sample_c_thin.las\n" info ${WORK_DIR}/clouds)
string(REGEX MATCHALL "file: [^\n]*" listed "${quorvel_output}")
if(NOT listed STREQUAL "file: ${WORK_DIR}/clouds/sample_c_thin.las;file: ${WORK_DIR}/clouds/simple.laz"
   OR NOT quorvel_output MATCHES "total: 2 files, 3797 points, bbox [^\n]*, classes [^\n]*\n$")
  message(FATAL_ERROR "info of a directory:\n${quorvel_output}")
endif()
quorvel(1 "quorvel: error: ${WORK_DIR}/nothing: no LAS, LAZ or bundle files" info
        ${WORK_DIR}/nothing)
# A failing file fails the run before anything is printed.
quorvel(1 "quorvel: error: ${WORK_DIR}/pipe.las: not a regular file" info ${data}/simple.laz
        ${WORK_DIR}/pipe.las)
if(quorvel_output MATCHES "file: ")
  message(FATAL_ERROR "a failed info printed a partial description:\n${quorvel_output}")
endif()

# LAZ in and out: the small LAZ sample converted to LAS and back to LAZ keeps its records.
quorvel(0 "points: 1065\n" info ${data}/simple.laz)
quorvel(0 "" convert ${data}/simple.laz ${WORK_DIR}/simple.las)
quorvel(0 "" convert ${WORK_DIR}/simple.las ${WORK_DIR}/simple.laz)
quorvel(0 "" convert ${WORK_DIR}/simple.laz ${WORK_DIR}/simple-again.las)
expect_same_file(${WORK_DIR}/simple.las ${WORK_DIR}/simple-again.las "LAS through LAZ")
quorvel(0 "agreement: 1065 of 1065 (100.00%)" compare ${data}/simple.laz ${data}/simple.decoded.las)
