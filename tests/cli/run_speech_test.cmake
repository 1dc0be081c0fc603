# SPDX-License-Identifier: BSD-3-Clause
# How the host speaks: standard output holds data only, --quiet leaves nothing but errors,
# --verbose shows the library's own lines on standard error; errors say what to do; options share
# one vocabulary; outputs are checked before anything is read.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

# Runs the host; fails unless it exits with CODE. Its outputs are kept apart in run_out and
# run_err.
function(run expected_code)
  execute_process(COMMAND ${QUORVEL} ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT code EQUAL expected_code)
    message(FATAL_ERROR "quorvel ${ARGN}: exit ${code}, ${expected_code} expected\n${out}\n${err}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
  set(run_err "${err}" PARENT_SCOPE)
  set(run_args "${ARGN}" PARENT_SCOPE)
endfunction()

set(stream_name_out "standard output")
set(stream_name_err "standard error")

function(expect_empty stream)
  if(NOT "${run_${stream}}" STREQUAL "")
    message(FATAL_ERROR "quorvel ${run_args}: ${stream_name_${stream}} is not empty:\n${run_${stream}}")
  endif()
endfunction()

function(expect_in stream text)
  string(FIND "${run_${stream}}" "${text}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "quorvel ${run_args}: no \"${text}\" on ${stream_name_${stream}}:\n"
                        "${run_${stream}}")
  endif()
endfunction()

function(expect_not_in stream text)
  string(FIND "${run_${stream}}" "${text}" at)
  if(NOT at EQUAL -1)
    message(FATAL_ERROR "quorvel ${run_args}: \"${text}\" on ${stream_name_${stream}}:\n"
                        "${run_${stream}}")
  endif()
endfunction()

set(c ${data}/sample_c.las)
set(thin ${data}/sample_c_thin.las)
set(nc ${data}/sample_nc.las)
set(w ${WORK_DIR})
file(WRITE ${w}/pipeline.json "[\"${c}\", {\"command\": \"cellsize\"}, \"${w}/piped.las\"]")

# Every command that writes a file (arguments separated by |): --quiet prints nothing at all, a plain run only its summary
# on standard error, and the library's lines (boxes, progress) only with --verbose.
run(0 dtm ${c} -o ${w}/dtm.tif --cell 2 --fill-rings 100 --quiet)
set(commands
    "convert|${c}|${w}/o.las"
    "transfer|${thin}|${nc}|-o|${w}/o.las|--bands|1"
    "cellsize|${c}|-o|${w}/o.las"
    "regress|${c}|-o|${w}/o.las|--maximum-iteration|1"
    "extrapolate|${c}|-o|${w}/o.las|--target|0:1|--maximum-iteration|1"
    "relheight|${c}|-o|${w}/o.las|--half-width|2"
    "shapefactors|${c}|-o|${w}/shape.las|--normals"
    "weights|${w}/shape.las|-o|${w}/o.las"
    "reduce|${w}/shape.las|-o|${w}/o.las"
    "select|${c}|-o|${w}/o.las|--range|2"
    "dtm|${c}|-o|${w}/o.tif|--cell|2"
    "raster|import|${w}/dtm.tif|-o|${w}/o.h5"
    "map|${c}|${w}/dtm.tif|-o|${w}/o.las|--height"
    "mapfield|${c}|${w}/dtm.tif|-o|${w}/o.h5|--source-field|Intensity|--target-field|I|--radius|2"
    "pipeline|${w}/pipeline.json")
foreach(entry IN LISTS commands)
  string(REPLACE "|" ";" command "${entry}")
  run(0 ${command} --quiet)
  expect_empty(out)
  expect_empty(err)
  run(0 ${command})
  expect_empty(out)
  expect_not_in(err "ParameterBox")
  expect_not_in(err ": compute ")
endforeach()
run(0 transfer ${thin} ${nc} -o ${w}/o.las --bands 1)
expect_in(err "quorvel transfer: 14408 points, 1 fragments, ")
run(0 transfer ${thin} ${nc} -o ${w}/o.las --bands 1 --verbose)
expect_empty(out)
expect_in(err "threads: ")
run(0 regress ${c} -o ${w}/o.las --maximum-iteration 1 -v)
expect_in(err "ParameterBox.range: -0.200000:0.200000\n")
run(0 cellsize ${c} -o ${w}/o.las)
expect_in(err "setCellSize: CellTensor for 14408 points in 1 fragments\n")

# What a script reads comes on standard output alone.
run(0 select ${c} --range 2 --count --quiet)
if(NOT run_out STREQUAL "1368\n")
  message(FATAL_ERROR "select --count printed \"${run_out}\", not 1368")
endif()
run(0 compare ${thin} ${thin} --quiet)
expect_in(out "agreement: 2732 of 2732 (100.00%)")
run(0 date scan_210315_134501.laz 20190704.las --quiet)
if(NOT run_out STREQUAL "scan_210315_134501.laz: 2021-03-15 13:45:01, day of week 1, gps week 2149\n20190704.las: 2019-07-04 00:00:00, day of week 4, gps week 2060\n")
  message(FATAL_ERROR "date printed:\n${run_out}")
endif()
run(1 date scan_210315_134501.laz foo.las)
expect_in(out "gps week 2149")
expect_in(err "quorvel date: no date in \"foo.las\"")
run(0 --version)
expect_in(out "quorvel 0.1.0")

# Errors say what to do.
run(0 shapefactors ${c} -o ${w}/plain.las --quiet)
run(1 weights ${w}/plain.las -o ${w}/never.las)
expect_in(err "quorvel: error: weights: ERROR: no f_normalvector (it needs \"NormalVector\": run quorvel shapefactors --normals first; the fields there are: Positions, ")
run(1 select ${c} --field Z --range 1 --count)
expect_in(err "(the fields there are: Positions, ")
file(WRITE ${w}/far.asc "ncols 2\nnrows 2\nxllcorner 0\nyllcorner 0\ncellsize 1\nNODATA_value -9999\n1 2\n3 4\n")
run(1 map ${c} ${w}/far.asc -o ${w}/never.las --height)
expect_in(err "quorvel: error: map: the raster ${w}/far.asc (x ")
expect_in(err "does not meet the cloud ${c} (x 674521.920 to 674605.320, y 1206740.080 to 1206814.960)")
run(2 shapefactors ${c} -o ${w}/never.las --stepp 1)
expect_in(err "quorvel shapefactors: unknown option --stepp, did you mean --step?")
run(2 transfer ${thin} ${nc} -o ${w}/never.las --bandz 1)
expect_in(err "did you mean --bands?")
run(2 regress ${c} -o ${w}/never.las --dimension 4)
expect_in(err "--dimension: \"4\" is not one of 2, 3, 2D, 3D")
run(2 extrapolate ${c} -o ${w}/never.las --mode plane)
expect_in(err "\"plane\" is not one of planarregression, threshold, classification, constant")
run(0 regress ${nc} -o ${w}/o.las --maximum-iteration 1 --quiet)
expect_in(err "quorvel regress: warning: no point has a class in --source 2, so there are no seeds")
if(EXISTS ${w}/never.las)
  message(FATAL_ERROR "a refused command wrote its output")
endif()

# One vocabulary: --dimension takes 2, 3, 2D and 3D everywhere; --threads after any command.
foreach(dimension 2 3 2D 3D)
  run(0 shapefactors ${c} -o ${w}/o.las --dimension ${dimension} --maxstep 1 --quiet)
  run(0 regress ${c} -o ${w}/o.las --dimension ${dimension} --maximum-iteration 1 --quiet)
endforeach()
run(0 transfer ${thin} ${nc} -o ${w}/o.las --dimension 2D --verbose)
expect_in(err "dimension: 2\n")
run(0 cellsize ${c} -o ${w}/o.las --threads 1 --quiet)
run(0 shapefactors --help)
expect_in(out "square metres")
run(0 transfer --help)
expect_in(out "--source-classes TEXT=0:255")
run(0 regress --help)
expect_in(out "--range TEXT=-0.2:0.2")

# Outputs are checked before anything is read: the input here would fail when read.
execute_process(COMMAND mkfifo ${w}/pipe.las)
run(1 cellsize ${w}/pipe.las -o ${w}/absent/out.las)
expect_in(err "quorvel: error: ${w}/absent/out.las: cannot be written: no such directory ${w}/absent")
run(1 convert ${w}/pipe.las ${w}/absent/out.las)
expect_in(err "no such directory")
file(MAKE_DIRECTORY ${w}/locked)
execute_process(COMMAND chmod 555 ${w}/locked)
execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT uid STREQUAL "0")
  run(1 dtm ${w}/pipe.las -o ${w}/locked/dtm.tif --cell 1)
  expect_in(err "the directory ${w}/locked is not writable")
endif()
