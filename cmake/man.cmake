# Manual pages: the programs' pages go with the tools, libibp(3) with the
# development files. They are installed compressed (gzip -n: the same bytes on
# every build, as Multi-Arch: same wants of libibp-dev).
file(GLOB IBP_MAN1_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
file(GLOB IBP_MAN3_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.3)
set(IBP_MAN_GZ "")
foreach(page IN LISTS IBP_MAN1_PAGES IBP_MAN3_PAGES)
    get_filename_component(name ${page} NAME)
    add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/${name}.gz
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
        COMMAND gzip -9nc ${page} > ${PROJECT_BINARY_DIR}/man/${name}.gz
        DEPENDS ${page} VERBATIM)
    list(APPEND IBP_MAN_GZ ${PROJECT_BINARY_DIR}/man/${name}.gz)
endforeach()
add_custom_target(ibp_man_pages ALL DEPENDS ${IBP_MAN_GZ})
list(TRANSFORM IBP_MAN1_PAGES REPLACE "^.*/([^/]*)$" "${PROJECT_BINARY_DIR}/man/\\1.gz")
list(TRANSFORM IBP_MAN3_PAGES REPLACE "^.*/([^/]*)$" "${PROJECT_BINARY_DIR}/man/\\1.gz")
if(IBP_BUILD_APPS)
    install(FILES ${IBP_MAN1_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
install(FILES ${IBP_MAN3_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
