# The manual pages: lint clean, and one for every program of apps/.
if(NOT CMAKE_CROSSCOMPILING)
    add_test(NAME man_pages
        COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_pages.sh ${PROJECT_SOURCE_DIR}/man ${PROJECT_SOURCE_DIR}/apps)
endif()
