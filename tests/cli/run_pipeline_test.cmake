# SPDX-License-Identifier: BSD-3-Clause
# quorvel pipeline: a pipeline gives the file its commands give one after another, and every
# kind of bad pipeline file is refused, with its place in the array, before anything is written.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

# Ground (2) within 3 m first, then every class within 1 m over what is still unclassified,
# then cell sizes: three commands, then the same as one pipeline.
set(ground --source-classes 2 --target-classes 0 --bands 3)
quorvel(0 "quorvel transfer" transfer ${data}/sample_c_thin.las ${data}/sample_nc.las
        -o ${WORK_DIR}/step1.las ${ground})
quorvel(0 "quorvel transfer" transfer ${data}/sample_c_thin.las ${WORK_DIR}/step1.las
        -o ${WORK_DIR}/step2.las --target-classes 0 --bands 1 --threads 1)
quorvel(0 "quorvel cellsize" cellsize ${WORK_DIR}/step2.las -o ${WORK_DIR}/steps.las)

file(WRITE ${WORK_DIR}/three.json "[
  \"${data}/sample_nc.las\",
  {\"command\": \"transfer\", \"source\": \"${data}/sample_c_thin.las\",
   \"source-classes\": \"2\", \"target-classes\": \"0\", \"bands\": 3},
  {\"command\": \"transfer\", \"source\": \"${data}/sample_c_thin.las\",
   \"target-classes\": \"0\", \"bands\": \"1\", \"threads\": 1},
  {\"command\": \"cellsize\"},
  \"${WORK_DIR}/piped.las\"
]")
quorvel(0 "quorvel pipeline: 14408 points" pipeline ${WORK_DIR}/three.json)
expect_same_file(${WORK_DIR}/steps.las ${WORK_DIR}/piped.las "the pipeline against the three commands")
quorvel(0 "CellTensor: float32" info ${WORK_DIR}/piped.las)
quorvel(0 "quorvel pipeline" pipeline --help)
string(FIND "${quorvel_output}" "{\"command\": \"transfer\"" at)
if(at EQUAL -1)
  message(FATAL_ERROR "pipeline --help shows no example:\n${quorvel_output}")
endif()

# Bad pipelines: (file text, expected message); none may write its output. (Each text keeps its
# square brackets balanced: CMake does not split a list inside brackets.)
set(in "\"${data}/sample_nc.las\"")
set(out "\"${WORK_DIR}/never.las\"")
set(src "\"source\": \"${data}/sample_c_thin.las\"")
set(cases
  "[${in}, {\"command\": \"transfr\"}, ${out}]" "element 2: unknown command \"transfr\""
  "[${in}, {\"command\": \"transfer\", ${src}, \"colour\": 1}, ${out}]"
  "element 2: transfer: unknown option \"colour\""
  "[${in}, {\"command\": \"cellsize\"}, {\"command\": \"transfer\", ${src}, \"dimension\": \"x\"}, ${out}]"
  "element 3: transfer: --dimension: \"x\" is not one of 2, 3, 2D, 3D"
  "[${in}, {\"command\": \"transfer\", ${src}, \"unclassify\": \"yes\"}, ${out}]"
  "element 2: transfer: \"unclassify\" takes true or false"
  "[${in}, {\"command\": \"transfer\", ${src}, \"bands\": [1]}, ${out}]"
  "element 2: transfer: \"bands\" takes a text or a number, not array"
  "[${in}, {\"command\": \"transfer\", \"source\": \"${WORK_DIR}/absent.las\"}, ${out}]"
  "element 2: transfer: source: no such file: ${WORK_DIR}/absent.las"
  "[${in}, {\"command\": \"transfer\"}, ${out}]" "element 2: transfer: --source is required"
  "[${in}, {\"command\": \"info\"}, ${out}]" "element 2: \"info\" does not change a cloud"
  "[${in}, \"cellsize\", ${out}]" "element 2: a stage is an object with a text \"command\""
  "[\"${WORK_DIR}/absent.las\", {\"command\": \"cellsize\"}, ${out}]"
  "element 1: no such file: ${WORK_DIR}/absent.las"
  "[${in}, {\"command\": \"cellsize\"}, 7]" "element 3: the output file name must be a text"
  "{\"input\": ${in}}" "a pipeline is a JSON array"
  "{\"input\": }" "not a JSON text"
)
list(LENGTH cases count)
math(EXPR last "${count} - 1")
foreach(k RANGE 0 ${last} 2)
  math(EXPR m "${k} + 1")
  list(GET cases ${k} text)
  list(GET cases ${m} message)
  file(WRITE ${WORK_DIR}/bad.json "${text}")
  quorvel(1 "quorvel: error: ${WORK_DIR}/bad.json: ${message}" pipeline ${WORK_DIR}/bad.json)
endforeach()
quorvel(1 "quorvel: error: ${WORK_DIR}/none.json: no such file" pipeline ${WORK_DIR}/none.json)
if(EXISTS ${WORK_DIR}/never.las)
  message(FATAL_ERROR "a refused pipeline wrote its output")
endif()
