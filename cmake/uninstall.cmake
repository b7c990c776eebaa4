# cmake -DMANIFEST=<build>/install_manifest.txt -P uninstall.cmake
# Removes every file and link that the last install into that build's prefix
# wrote (under $DESTDIR when it is set). Folders stay: they may have been
# there before.
if(NOT EXISTS "${MANIFEST}")
    message(FATAL_ERROR "no install manifest at ${MANIFEST}: nothing was installed from this build")
endif()
file(STRINGS "${MANIFEST}" files)
set(left 0)
foreach(file IN LISTS files)
    set(path "$ENV{DESTDIR}${file}")
    if(EXISTS "${path}" OR IS_SYMLINK "${path}")
        file(REMOVE "${path}")
        if(EXISTS "${path}" OR IS_SYMLINK "${path}")
            message(WARNING "could not remove ${path}")
            math(EXPR left "${left} + 1")
        else()
            message(STATUS "Removed: ${path}")
        endif()
    endif()
endforeach()
if(left GREATER 0)
    message(FATAL_ERROR "${left} installed files are still there")
endif()
