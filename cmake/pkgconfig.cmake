# ibp.pc finds its prefix from its own folder (${pcfiledir}), so an install
# made with `cmake --install --prefix DIR`, a package unpacked into a root file
# system or a sysroot hands out the paths where the files are. A libdir or
# includedir given as an absolute path stays absolute.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    set(IBP_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
    file(RELATIVE_PATH IBP_PC_UP /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
    string(REGEX REPLACE "/$" "" IBP_PC_UP "${IBP_PC_UP}")
    set(IBP_PC_PREFIX "\${pcfiledir}/${IBP_PC_UP}")
endif()
foreach(dir LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${dir}}")
        set(IBP_PC_${dir} "${CMAKE_INSTALL_${dir}}")
    else()
        set(IBP_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
    endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/ibp.pc.in ${PROJECT_BINARY_DIR}/ibp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ibp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
