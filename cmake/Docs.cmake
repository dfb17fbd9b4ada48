# The API reference: `cmake --build <dir> --target docs` writes HTML to <dir>/docs/html from the
# public headers. Any Doxygen warning (an undocumented declaration included) fails the target.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  message(STATUS "Doxygen not found: no docs target")
  return()
endif()
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
add_custom_target(docs
  COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "API reference: ${PROJECT_BINARY_DIR}/docs/html/index.html"
  VERBATIM)
