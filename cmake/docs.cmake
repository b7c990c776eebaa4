# API reference: the target "docs" runs Doxygen over the public headers into
# IBP_DOCS_DIR/html. A warning, such as a public name without a description,
# fails the target, and so does a header without a @file block.
set(IBP_DOCS_DIR ${PROJECT_BINARY_DIR}/docs CACHE PATH "Folder of the API reference (html/ below it)")
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} "-DHEADERS=${IBP_PUBLIC_HEADERS}" -P ${CMAKE_CURRENT_LIST_DIR}/docs_file_check.cmake
        COMMAND ${CMAKE_COMMAND} -E make_directory ${IBP_DOCS_DIR}
        COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile
        COMMENT "API reference in ${IBP_DOCS_DIR}/html"
        VERBATIM)
endif()
