# SPDX-License-Identifier: BSD-3-Clause
# quorvel regress, relheight and extrapolate on the sample data: ground grown from seeds, every
# option reaching its box field, the per-fragment measures, and a pipeline of regress and
# relheight giving the same file.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

# Seeds: the thinned cloud's ground within 0.3 m, 550 of the 1368 true ground points. Growing
# from them (candidates 0 and 1, the other options at the box's defaults) finds nearly all of it.
quorvel(0 "quorvel transfer" transfer ${data}/sample_c_thin.las ${data}/sample_nc.las
        -o ${WORK_DIR}/seeds.las --source-classes 2 --bands 0.3)
quorvel(0 "class 2: 550 of 1368" compare ${WORK_DIR}/seeds.las ${data}/sample_c.las)
quorvel(0 "PlanarRegressionIteration, INFO: procession 1 / 1 \t" regress ${WORK_DIR}/seeds.las
        -o ${WORK_DIR}/grown.las --candidates 0:1 --verbose)
quorvel(0 "class 2: 1363 of 1368" compare ${WORK_DIR}/grown.las ${data}/sample_c.las)
quorvel(0 "classes: 0:13012 2:1396" info ${WORK_DIR}/grown.las)

# Every option sets its field: the printed box shows them, and the reset to 5 leaves no seed.
quorvel(0 "ParameterBox.range: -0.100000:0.100000\n" regress ${WORK_DIR}/seeds.las --verbose
        -o ${WORK_DIR}/reset.las --range=-0.1:0.1 --source 2 --additional 6 --radius 2
        --target -1 --maximum-iteration 3 --reset 5 --quantile 10 --dimension 3D)
foreach(line "additional: 6.000000:6.000000" "radius: 2" "target: -1" "maximum_iteration: 3"
             "reset: 5" "quantile: 10" "dimension: 3D")
  string(FIND "${quorvel_output}" "ParameterBox.${line}\n" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "regress did not print ${line}:\n${quorvel_output}")
  endif()
endforeach()
quorvel(0 "classes: 5:14408" info ${WORK_DIR}/reset.las)
quorvel(2 "--dimension: \"4D\" is not one of 2, 3, 2D, 3D" regress ${WORK_DIR}/seeds.las
        -o ${WORK_DIR}/never.las --dimension 4D)

# Relative height and belows: both fields, the class forms, and per fragment (tiles change the
# squares near their edges).
quorvel(0 "quorvel relheight: 14408 points" relheight ${data}/sample_c.las -o ${WORK_DIR}/rh.las
        --half-width 1)
quorvel(0 "RelativeHeight: float32" info ${WORK_DIR}/rh.las)
quorvel(0 "RelativeBelows: uint8" info ${WORK_DIR}/rh.las)
quorvel(0 "quorvel relheight" relheight ${data}/sample_c.las -o ${WORK_DIR}/rh2.las
        --half-width 1 --classes 2)
quorvel(0 "agreement: 14379 of 14408" compare ${WORK_DIR}/rh2.las ${WORK_DIR}/rh.las
        --field RelativeBelows) # class 4 (29 points) gets no value
quorvel(0 "quorvel relheight: 14408 points, 4 fragments" --fragment-points 5000 relheight
        ${data}/sample_c.las -o ${WORK_DIR}/rh4.las --half-width 1)
quorvel(0 "agreement: 13396 of 14408" compare ${WORK_DIR}/rh4.las ${WORK_DIR}/rh.las
        --field RelativeBelows)
quorvel(2 "--half-width is required" relheight ${data}/sample_c.las -o ${WORK_DIR}/never.las)
if(EXISTS ${WORK_DIR}/never.las)
  message(FATAL_ERROR "a refused command wrote its output")
endif()

# Both as one pipeline: the same file as the two commands one after the other.
quorvel(0 "quorvel relheight" relheight ${WORK_DIR}/grown.las -o ${WORK_DIR}/steps.las
        --half-width 1.5 --classes 2)
file(WRITE ${WORK_DIR}/terrain.json "[
  \"${WORK_DIR}/seeds.las\",
  {\"command\": \"regress\", \"candidates\": \"0:1\"},
  {\"command\": \"relheight\", \"half-width\": 1.5, \"classes\": \"2\"},
  \"${WORK_DIR}/piped.las\"
]")
quorvel(0 "quorvel pipeline: 14408 points" pipeline ${WORK_DIR}/terrain.json)
expect_same_file(${WORK_DIR}/steps.las ${WORK_DIR}/piped.las "the pipeline against the two commands")

# Extrapolation from the same seeds: ground grown along the terrain (nearly all of it, few
# others), flat ground by height threshold, the options reaching the box, a refused mode.
quorvel(0 "quorvel extrapolate: 14408 points" extrapolate ${WORK_DIR}/seeds.las
        -o ${WORK_DIR}/extrapolated.las --target 0:1)
quorvel(0 "class 2: 1358 of 1368" compare ${WORK_DIR}/extrapolated.las ${data}/sample_c.las)
quorvel(0 "classes: 0:13010 2:1398" info ${WORK_DIR}/extrapolated.las)
quorvel(0 "quorvel extrapolate" extrapolate ${WORK_DIR}/seeds.las -o ${WORK_DIR}/flat.las
        --mode threshold --threshold 0.2 --target 0:1 --radius 1 --dimension 2D)
quorvel(0 "class 2: 1361 of 1368" compare ${WORK_DIR}/flat.las ${data}/sample_c.las)
quorvel(0 "quorvel extrapolate" extrapolate ${WORK_DIR}/seeds.las -o ${WORK_DIR}/five.las
        --mode constant --class 5 --source 2 --target 0 --radius 0.5 --maximum-iteration 1
        --dimension 3D)
quorvel(0 "classes: 0:13450 2:554 5:404" info ${WORK_DIR}/five.las)
quorvel(2 "--mode: \"grow\" is not one of planarregression, threshold, classification, constant" extrapolate
        ${WORK_DIR}/seeds.las -o ${WORK_DIR}/never.las --mode grow)
