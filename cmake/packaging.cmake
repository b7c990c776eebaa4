# Debian packages, one per install component (`cpack` in a build folder that
# was configured with -DCMAKE_INSTALL_PREFIX=/usr; `make package` does both
# architectures):
#   libibp<major>  runtime: the shared object; the name carries the SONAME major
#   libibp-dev     development: headers, archive, ibp.pc, CMake package, libibp(3)
#   ibp-tools      tools: the programs of apps/ and their pages
set(IBP_PACKAGE_MAINTAINER "ibp developers <ibp@localhost>" CACHE STRING "Maintainer field of the packages")

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
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "")

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
set(IBP_DEB_RUNTIME libibp${PROJECT_VERSION_MAJOR})

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
if(CMAKE_CROSSCOMPILING)
    # The cross-built programs are linked statically.
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS OFF)
else()
    set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${IBP_DEB_RUNTIME} ${IBP_DEB_SAME_VERSION}")
    set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
endif()

include(CPack)

# `make uninstall`: removes what the last install from this build put in.
add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -DMANIFEST=${PROJECT_BINARY_DIR}/install_manifest.txt
            -P ${CMAKE_CURRENT_LIST_DIR}/uninstall.cmake
    VERBATIM)
