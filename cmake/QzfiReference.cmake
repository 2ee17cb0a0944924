# The target "reference": a page for every public header, below "reference/html" of the build tree. A warning is an error.
find_program(QZFI_DOXYGEN doxygen)
if(QZFI_DOXYGEN)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(reference
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/reference
    COMMAND ${QZFI_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
    VERBATIM)
endif()
