# API reference: the target "docs" runs Doxygen over the public headers into
# IBP_DOCS_DIR/html. A warning, such as a public name without a description,
# fails the target, and so does a header without a @file block.
set(IBP_DOCS_DIR ${PROJECT_BINARY_DIR}/docs CACHE PATH "Folder of the API reference (html/ below it)")
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
    # The front page: what README.md says of the library (its opening and
    # "Linking a program"), not how the project is built and tested.
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/README.md)
    file(READ ${PROJECT_SOURCE_DIR}/README.md IBP_README)
    string(REGEX MATCH "^[^\n]*\n(.*)\n## The two commands" _ "${IBP_README}")
    set(IBP_FRONT_INTRO "${CMAKE_MATCH_1}")
    string(REGEX MATCH "\n## Linking a program\n(.*)" _ "${IBP_README}")
    string(REGEX REPLACE "\n## .*" "" IBP_FRONT_LINKING "${CMAKE_MATCH_1}")
    if(IBP_FRONT_INTRO STREQUAL "" OR IBP_FRONT_LINKING STREQUAL "")
        message(FATAL_ERROR "README.md: no opening or no section \"Linking a program\" for the API reference's front page")
    endif()
    file(WRITE ${PROJECT_BINARY_DIR}/docs_front.md.new
        "# libibp {#mainpage}\n${IBP_FRONT_INTRO}\n## Linking a program\n${IBP_FRONT_LINKING}\n"
        "## Where to start\n\nThe header of each subsystem is listed under Files; ibp/ibp.h includes them all.\n")
    configure_file(${PROJECT_BINARY_DIR}/docs_front.md.new ${PROJECT_BINARY_DIR}/docs_front.md COPYONLY)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} "-DHEADERS=${IBP_PUBLIC_HEADERS}" -P ${CMAKE_CURRENT_LIST_DIR}/docs_file_check.cmake
        COMMAND ${CMAKE_COMMAND} -E make_directory ${IBP_DOCS_DIR}
        COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile
        COMMENT "API reference in ${IBP_DOCS_DIR}/html"
        VERBATIM)
endif()
