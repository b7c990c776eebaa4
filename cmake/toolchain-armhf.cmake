# Cross build for 32-bit little-endian ARM Linux (glibc, hard float).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(IBP_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${IBP_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${IBP_CROSS_TRIPLET}-g++)
set(CMAKE_NM ${IBP_CROSS_TRIPLET}-nm CACHE FILEPATH "")
set(CMAKE_FIND_ROOT_PATH /usr/${IBP_CROSS_TRIPLET} /usr/lib/${IBP_CROSS_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# Debian's multiarch dev packages (mxml, gtest) put their libraries under
# /usr/lib/<triplet> and their headers in the shared /usr/include. The cross
# compiler's own headers come first; /usr/include only fills in what is missing.
set(CMAKE_C_FLAGS_INIT "-idirafter /usr/include")
set(CMAKE_CXX_FLAGS_INIT "-idirafter /usr/include")
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${IBP_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")
# qemu-user runs the test programs unless the build says otherwise: the run on
# an ARM kernel configures with -DCMAKE_CROSSCOMPILING_EMULATOR= (none).
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
    find_program(IBP_QEMU qemu-arm)
    if(IBP_QEMU)
        set(CMAKE_CROSSCOMPILING_EMULATOR ${IBP_QEMU})
    endif()
endif()
