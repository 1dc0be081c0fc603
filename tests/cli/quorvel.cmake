# SPDX-License-Identifier: BSD-3-Clause
# Shared by the host's end-to-end tests: a clean work directory and quorvel(CODE TEXT ARGS...),
# which runs the host and fails unless it exits with CODE and prints TEXT (standard output and
# standard error together; the last run's are kept in quorvel_output).
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(data ${SOURCE_DIR}/data)

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
  set(quorvel_output "${out}${err}" PARENT_SCOPE)
endfunction()

# Fails unless the files A and B hold the same bytes; what names them in the message.
function(expect_same_file a b what)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${a} ${b} RESULT_VARIABLE differs)
  if(differs)
    message(FATAL_ERROR "${what}: ${a} and ${b} differ")
  endif()
endfunction()
