# End-to-end runs of the quorvel host on the sample data: each step's output is checked, and a
# failing command must leave no output file behind.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})

function(quorvel expected_code expected_output)
  execute_process(COMMAND ${QUORVEL} ${ARGN} RESULT_VARIABLE code OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT code EQUAL expected_code)
    message(FATAL_ERROR "quorvel ${ARGN}: exit ${code}, ${expected_code} expected\n${out}\n${err}")
  endif()
  string(FIND "${out}${err}" "${expected_output}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "quorvel ${ARGN}: no \"${expected_output}\" in\n${out}\n${err}")
  endif()
endfunction()

set(data ${SOURCE_DIR}/data)
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
quorvel(0 "Chronometry: 15|03|2021 13:45:01 - day of week: 1" date scan_210315_134501.laz)

# Failures: one line, a non-zero exit, no output file.
quorvel(1 "quorvel: error: ${WORK_DIR}/absent.las: no such file" transfer ${WORK_DIR}/absent.las
        ${data}/sample_nc.las -o ${WORK_DIR}/never.las)
file(WRITE ${WORK_DIR}/foreign.las "x,y,z\n")
quorvel(1 "not a LAS file" cellsize ${WORK_DIR}/foreign.las -o ${WORK_DIR}/never.las)
if(EXISTS ${WORK_DIR}/never.las)
  message(FATAL_ERROR "a failed command left an output file")
endif()
