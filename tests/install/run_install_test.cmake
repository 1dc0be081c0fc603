# SPDX-License-Identifier: BSD-3-Clause
# Installs the built project into a scratch prefix, runs the installed host, then configures,
# builds and runs the example host (which links only Quorvel::quorvel) against it with
# find_package(Quorvel). Both run with no library path set: the installed files must find their
# libraries by themselves.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGV}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
foreach(file include/quorvel/quorvel.hpp include/quorvel/core/core.hpp
             include/quorvel/framework/tressel/grid.hpp include/quorvel/io/las.hpp
             include/quorvel/io/files.hpp include/quorvel/io/raster.hpp
             lib/cmake/Quorvel/QuorvelConfig.cmake)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
if(EXISTS ${prefix}/include/io)
  message(FATAL_ERROR "headers installed to a bare include/io")
endif()
file(GLOB_RECURSE detail_headers ${prefix}/include/*/detail/*)
if(detail_headers)
  message(FATAL_ERROR "detail headers were installed: ${detail_headers}")
endif()

find_program(READELF readelf)
if(READELF)
  foreach(library libquorvel.so libquorvel_framework.so libquorvel_io.so)
    execute_process(COMMAND ${READELF} -d ${prefix}/lib/${library} OUTPUT_VARIABLE dynamic)
    if(NOT dynamic MATCHES "PATH.*\\$ORIGIN")
      message(FATAL_ERROR "${library} does not find its libraries relative to itself:\n${dynamic}")
    endif()
  endforeach()
endif()
run(${prefix}/bin/quorvel info ${SOURCE_DIR}/data/sample_c.las)
if(NOT last_output MATCHES "points: 14408")
  message(FATAL_ERROR "unexpected output of the installed quorvel:\n${last_output}")
endif()

# The modules that bring GDAL and HDF5 are opened beside the installed libraries.
run(${prefix}/bin/quorvel info ${SOURCE_DIR}/data/nebraska_wkt_geotiff.las)
if(NOT last_output MATCHES "crs: [^\n]*\\(EPSG:[0-9]+\\)")
  message(FATAL_ERROR "the installed quorvel names no coordinate system:\n${last_output}")
endif()
run(${prefix}/bin/quorvel -q convert ${SOURCE_DIR}/data/sample_c.las ${WORK_DIR}/sample_c.h5)
run(${prefix}/bin/quorvel info ${WORK_DIR}/sample_c.h5)
if(NOT last_output MATCHES "points: 14408")
  message(FATAL_ERROR "unexpected bundle of the installed quorvel:\n${last_output}")
endif()

run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/host -B ${WORK_DIR}/build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/quorvel_example_host)
if(NOT last_output MATCHES "points: 6 in 2 fragments")
  message(FATAL_ERROR "unexpected output of the example host:\n${last_output}")
endif()
message(STATUS "${last_output}")
