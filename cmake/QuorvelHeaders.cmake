# SPDX-License-Identifier: BSD-3-Clause
# quorvel_install_headers(DESTINATION <dir> [INCLUDE_PREFIX <prefix>] FILES <header>...)
#
# The one way a library publishes headers: each header (a path relative to the calling
# directory) is installed under ${CMAKE_INSTALL_INCLUDEDIR}/<dir>, keeping its sub-folder, and is
# listed in the global property QUORVEL_PUBLIC_INCLUDES as a host names it,
# "<prefix><header>", for the test that compiles every public header on its own (tests/).
function(quorvel_install_headers)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "DESTINATION;INCLUDE_PREFIX" "FILES")
  if(NOT arg_DESTINATION OR NOT arg_FILES OR arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR
      "quorvel_install_headers(DESTINATION <dir> [INCLUDE_PREFIX <prefix>] FILES <header>...): "
      "got ${ARGV}")
  endif()
  foreach(header IN LISTS arg_FILES)
    get_filename_component(dir ${header} DIRECTORY)
    install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${arg_DESTINATION}/${dir})
    set_property(GLOBAL APPEND PROPERTY QUORVEL_PUBLIC_INCLUDES "${arg_INCLUDE_PREFIX}${header}")
  endforeach()
endfunction()
