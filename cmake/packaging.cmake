# Debian packages, one per install component (`cpack` in a build folder that
# was configured with -DCMAKE_INSTALL_PREFIX=/usr; `make package` does both
# architectures and runs lintian on them):
#   libibp<major>  runtime: the shared object; the name carries the SONAME major
#   libibp-dev     development: headers, archive, ibp.pc, CMake package, libibp(3)
#   ibp-tools      tools: the programs of apps/ and their pages
# Each holds /usr/share/doc/<package>/copyright, made from LICENSE, and
# changelog.gz, made from CHANGELOG.md. Objects are stripped; `make package`
# keeps their debug information aside (scripts/package.sh).
set(IBP_PACKAGE_MAINTAINER "ibp developers <ibp-dev@ibp.example.org>" CACHE STRING
    "Maintainer field of the packages and of their changelog")

set(IBP_DEB_RUNTIME libibp${PROJECT_VERSION_MAJOR})
set(IBP_DEB_PACKAGES runtime ${IBP_DEB_RUNTIME} development libibp-dev)
if(IBP_BUILD_APPS)
    list(APPEND IBP_DEB_PACKAGES tools ibp-tools)
endif()

# ---------------------------------------------------------------- copyright and changelog
# copyright in the machine-readable format; Debian calls the MIT licence "Expat".
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
file(READ ${PROJECT_SOURCE_DIR}/LICENSE IBP_LICENSE_TEXT)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" _ "${IBP_LICENSE_TEXT}")
set(IBP_COPYRIGHT_HOLDER "${CMAKE_MATCH_1}")
string(REGEX REPLACE "^[^\n]*\n\n[^\n]*\n\n" "" IBP_LICENSE_BODY "${IBP_LICENSE_TEXT}")  # title, copyright line
string(STRIP "${IBP_LICENSE_BODY}" IBP_LICENSE_BODY)
string(REGEX REPLACE "\n\n" "\n.\n" IBP_LICENSE_BODY "${IBP_LICENSE_BODY}")
string(REGEX REPLACE "\n" "\n " IBP_LICENSE_BODY "${IBP_LICENSE_BODY}")
set(IBP_DEB_DOC ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${IBP_DEB_DOC}/copyright.new
"Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/
Upstream-Name: ibp

Files: *
Copyright: ${IBP_COPYRIGHT_HOLDER}
License: Expat
 ${IBP_LICENSE_BODY}
")
configure_file(${IBP_DEB_DOC}/copyright.new ${IBP_DEB_DOC}/copyright COPYONLY)

# changelog: "## VERSION (YYYY-MM-DD)" starts an entry, "- " an item, and
# indented lines continue the item.
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md IBP_CHANGELOG_LINES)
set(IBP_DEB_CHANGELOG "")
set(IBP_CHANGELOG_TOP "")
set(IBP_CHANGELOG_TRAILER "")
foreach(line IN LISTS IBP_CHANGELOG_LINES)
    if(line MATCHES "^## ([^ ]+) \\(([0-9-]+)\\)$")
        set(version ${CMAKE_MATCH_1})
        if(IBP_CHANGELOG_TOP STREQUAL "")
            set(IBP_CHANGELOG_TOP ${version})
        endif()
        execute_process(COMMAND date -u -R -d "${CMAKE_MATCH_2} 12:00" OUTPUT_VARIABLE day
            OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
        if(NOT rc EQUAL 0)
            message(FATAL_ERROR "CHANGELOG.md: bad date in \"${line}\"")
        endif()
        string(APPEND IBP_DEB_CHANGELOG "${IBP_CHANGELOG_TRAILER}ibp (${version}) unstable; urgency=medium\n\n")
        set(IBP_CHANGELOG_TRAILER "\n -- ${IBP_PACKAGE_MAINTAINER}  ${day}\n\n")
    elseif(NOT IBP_CHANGELOG_TOP STREQUAL "" AND line MATCHES "^- (.*)$")
        string(APPEND IBP_DEB_CHANGELOG "  * ${CMAKE_MATCH_1}\n")
    elseif(NOT IBP_CHANGELOG_TOP STREQUAL "" AND line MATCHES "^  +(.*)$")
        string(APPEND IBP_DEB_CHANGELOG "    ${CMAKE_MATCH_1}\n")
    endif()
endforeach()
string(APPEND IBP_DEB_CHANGELOG "${IBP_CHANGELOG_TRAILER}")
string(REGEX REPLACE "\n\n$" "\n" IBP_DEB_CHANGELOG "${IBP_DEB_CHANGELOG}")
if(NOT IBP_CHANGELOG_TOP STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "CHANGELOG.md: the newest entry is \"${IBP_CHANGELOG_TOP}\", the project is ${PROJECT_VERSION}")
endif()
file(WRITE ${IBP_DEB_DOC}/changelog.new "${IBP_DEB_CHANGELOG}")
configure_file(${IBP_DEB_DOC}/changelog.new ${IBP_DEB_DOC}/changelog COPYONLY)

# gzip -n: no name or time inside, so that both architectures ship the same
# bytes (Multi-Arch: same) and a rebuild gives the same package.
add_custom_command(OUTPUT ${IBP_DEB_DOC}/changelog.gz
    COMMAND gzip -9nc ${IBP_DEB_DOC}/changelog > ${IBP_DEB_DOC}/changelog.gz
    DEPENDS ${IBP_DEB_DOC}/changelog VERBATIM)
add_custom_target(ibp_deb_changelog ALL DEPENDS ${IBP_DEB_DOC}/changelog.gz)
while(IBP_DEB_PACKAGES)
    list(POP_FRONT IBP_DEB_PACKAGES component package)
    install(FILES ${IBP_DEB_DOC}/copyright ${IBP_DEB_DOC}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endwhile()

# ---------------------------------------------------------------- CPack
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ibp)
set(CPACK_PACKAGE_VENDOR "ibp")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${IBP_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(IBP_BUILD_APPS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

# The Debian name of the target architecture; dpkg's own answer on a native build.
if(CMAKE_CROSSCOMPILING)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)")
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
    else()
        set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
    endif()
endif()

set(IBP_DEB_SAME_VERSION "(= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${IBP_DEB_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "base platform of the image-signal-processing service
Modules with a thread, a queue and handlers each; messages between modules
and between two processes over loopback UDP; a log in rotating files; a
debug command tree; XML readers; a layer over the libc; weak default entry
points of the camera control interface.
.
This package holds the shared library.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# shlibs: a program built against this version needs at least this version
# (the version script only ever adds names within one SONAME). This CPack
# knows the switch for all packages only; the runtime package alone holds a
# shared object.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# ldconfig runs through dpkg's trigger, not from maintainer scripts (see
# cmake/deb_post_build.cmake, which takes out the ones CPack writes).
configure_file(${CMAKE_CURRENT_LIST_DIR}/deb/triggers ${IBP_DEB_DOC}/runtime/triggers COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${IBP_DEB_DOC}/runtime/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libibp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${IBP_DEB_RUNTIME} ${IBP_DEB_SAME_VERSION}, libmxml-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "base platform of the image-signal-processing service (development)
Headers, the static archive, the pkg-config file (ibp.pc), the CMake package
(find_package(ibp)) and the manual page libibp(3).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ibp-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "base platform of the image-signal-processing service (programs)
ibp-isp, the sample service; ibp-ping, a client that measures round trips;
ibp-dt, the debug tool's command line; with their manual pages.")
# dpkg-shlibdeps finds libibp.so.0 in the build folder, which belongs to no
# package, so the dependency on libibp0 is stated here.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${IBP_DEB_RUNTIME} ${IBP_DEB_SAME_VERSION}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

# The binutils of the target: CPack reads and strips armhf objects too.
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
# The library and its development files install beside those of another
# architecture: the headers (the generated one too), the page and the
# documents are the same bytes on every architecture. This CPack writes no
# Multi-Arch field; cmake/deb_post_build.cmake adds it.
set(CPACK_IBP_MULTIARCH_SAME ${IBP_DEB_RUNTIME} libibp-dev)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/deb_post_build.cmake)

include(CPack)

# `make uninstall`: removes what the last install from this build put in.
add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -DMANIFEST=${PROJECT_BINARY_DIR}/install_manifest.txt
            -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
    VERBATIM)
