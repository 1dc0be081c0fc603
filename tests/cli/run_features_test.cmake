# SPDX-License-Identifier: BSD-3-Clause
# quorvel shapefactors, weights and reduce on the sample data: the fields each writes, the
# normals surviving a LAS file so that weights run on what shapefactors wrote, thinning by share
# and by threshold, the option checks, and reduce from scratch giving what the pipeline of all
# three gives.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

# (A progress line ends in a carriage return; the host ends it before its summary line.)
quorvel(0 "shapeFactorComputation: compute 1 / 1       " shapefactors ${data}/sample_c.las
        -o ${WORK_DIR}/shape.las --normals --linearity --sphericity --verbose)
foreach(field "Planarity: float32" "Linearity: float32" "Sphericity: float32"
              "NormalVector: vector")
  quorvel(0 "${field}" info ${WORK_DIR}/shape.las)
endforeach()
quorvel(0 "quorvel shapefactors" shapefactors ${data}/sample_c.las -o ${WORK_DIR}/plain.las)
quorvel(0 "Planarity: float32" info ${WORK_DIR}/plain.las)
string(FIND "${quorvel_output}" "NormalVector" at)
if(NOT at EQUAL -1)
  message(FATAL_ERROR "shapefactors wrote normals unasked:\n${quorvel_output}")
endif()
# The filters and the verbose lines: the enlarged box, then each step.
quorvel(0 "parameterbox.use_only_lastreturns or parameterbox.use_only_singlereturns\nparameterbox.intensity_threshold: 100\ncomputePlanarity\n"
        shapefactors ${data}/sample_c.las -o ${WORK_DIR}/filtered.las --last-returns
        --intensity-threshold 100 --verbose --step 0.5 --maxstep 3 --dimension 2)
quorvel(0 "674517.750,1206736.336,626.095\n674609.490,1206818.704,657.665\n" shapefactors
        ${data}/sample_c.las -o ${WORK_DIR}/filtered.las --verbose)

quorvel(0 "median weight: " weights ${WORK_DIR}/shape.las -o ${WORK_DIR}/weights.las
        --radius 0.5 --neighbours 8 --verbose)
quorvel(0 "Weights: float32" info ${WORK_DIR}/weights.las)
quorvel(1 "quorvel: error: weights: ERROR: no f_normalvector (it needs \"NormalVector\": run quorvel shapefactors --normals first" weights ${WORK_DIR}/plain.las
        -o ${WORK_DIR}/never.las)

# Thinning: a tenth of the weighted points and every unweighted one; by threshold, with and
# without the unweighted ones.
quorvel(0 "quorvel reduce: 1466 points" reduce ${data}/sample_c.las -o ${WORK_DIR}/tenth.las
        --keep 0.1)
quorvel(0 "points: 1466" info ${WORK_DIR}/tenth.las)
quorvel(0 "quorvel reduce: 7229 points" reduce ${WORK_DIR}/weights.las -o ${WORK_DIR}/heavy.las
        --threshold 1)
quorvel(0 "quorvel reduce: 7204 points" reduce ${WORK_DIR}/weights.las -o ${WORK_DIR}/heavy.h5
        --threshold 1 --drop-unweighted)
quorvel(2 "--keep: \"2\" is not a number from 0 to 1" reduce ${data}/sample_c.las
        -o ${WORK_DIR}/never.las --keep 2)
quorvel(2 "--keep excludes --threshold" reduce ${data}/sample_c.las -o ${WORK_DIR}/never.las
        --keep 0.2 --threshold 3)
quorvel(2 "--dimension: \"4\" is not one of 2, 3, 2D, 3D" shapefactors ${data}/sample_c.las
        -o ${WORK_DIR}/never.las --dimension 4)
if(EXISTS ${WORK_DIR}/never.las)
  message(FATAL_ERROR "a refused command wrote its output")
endif()

# reduce computes what it lacks with the options of shapefactors and weights: the same file as
# the three as one pipeline.
quorvel(0 "quorvel reduce" reduce ${data}/sample_c.las -o ${WORK_DIR}/direct.las --keep 0.3
        --step 0.5 --maxstep 2 --radius 0.8 --neighbours 6)
file(WRITE ${WORK_DIR}/features.json "[
  \"${data}/sample_c.las\",
  {\"command\": \"shapefactors\", \"normals\": true, \"step\": 0.5, \"maxstep\": 2},
  {\"command\": \"weights\", \"radius\": 0.8, \"neighbours\": 6},
  {\"command\": \"reduce\", \"keep\": 0.3},
  \"${WORK_DIR}/piped.las\"
]")
quorvel(0 "quorvel pipeline" pipeline ${WORK_DIR}/features.json)
expect_same_file(${WORK_DIR}/direct.las ${WORK_DIR}/piped.las "reduce against the pipeline")
