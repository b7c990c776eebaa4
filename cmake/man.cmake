# Manual pages: the programs' pages go with the tools, libibp(3) with the
# development files.
file(GLOB IBP_MAN1_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.1)
file(GLOB IBP_MAN3_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.3)
if(IBP_BUILD_APPS)
    install(FILES ${IBP_MAN1_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
install(FILES ${IBP_MAN3_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
