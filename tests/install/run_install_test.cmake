# Installs the built project into a scratch prefix, then configures, builds and runs the example
# host against it with find_package(Quorvel).
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGV}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file include/quorvel/quorvel.hpp include/quorvel/core/core.hpp
             include/quorvel/framework/tressel/Grid.hpp lib/cmake/Quorvel/QuorvelConfig.cmake)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
file(GLOB_RECURSE detail_headers ${prefix}/include/*/detail/*)
if(detail_headers)
  message(FATAL_ERROR "detail headers were installed: ${detail_headers}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/host -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/quorvel_example_host)
if(NOT last_output MATCHES "points: 6 in 2 fragments")
  message(FATAL_ERROR "unexpected output of the example host:\n${last_output}")
endif()
message(STATUS "${last_output}")
