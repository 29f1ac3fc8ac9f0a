# The API reference (docs/Doxyfile.in), target ftpdisk_docs, built from the
# headers a recorder compiles against (FTPDISK_PUBLIC_HEADERS, cmake/Install.cmake).
# scripts/docs.sh builds it into build/docs/html. Not part of a normal build.
find_program(FTPDISK_DOXYGEN doxygen)
if(FTPDISK_DOXYGEN)
  set(FTPDISK_DOCS_DIR "${PROJECT_SOURCE_DIR}/build/docs" CACHE PATH "Where ftpdisk_docs writes the reference")
  set(FTPDISK_DOCS_INPUT "")
  foreach(header IN LISTS FTPDISK_PUBLIC_HEADERS)
    string(APPEND FTPDISK_DOCS_INPUT " \"${PROJECT_SOURCE_DIR}/src/${header}\"")
  endforeach()
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(ftpdisk_docs
    COMMAND ${CMAKE_COMMAND} -E make_directory ${FTPDISK_DOCS_DIR}
    COMMAND ${FTPDISK_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
    COMMENT "API reference into ${FTPDISK_DOCS_DIR}/html"
    VERBATIM)
endif()
