# The programs of apps/: the command-line conventions, for every program that
# is built (a new one is covered the day it lands), with the arguments that a
# program of its own refuses (data/usage_NAME.txt), and the errors that stop
# the two sample programs.
if(IBP_BUILD_APPS)
    file(GLOB IBP_TEST_APP_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/apps/*.cpp)
    foreach(src ${IBP_TEST_APP_SOURCES})
        get_filename_component(app ${src} NAME_WE)
        add_test(NAME app_conventions_${app}
            COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_conventions.sh ${CMAKE_CURRENT_LIST_DIR}/data/conventions.txt
                    ${app} ${PROJECT_VERSION} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${app}>)
        set_tests_properties(app_conventions_${app} PROPERTIES TIMEOUT 60)
    endforeach()
    if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
        add_test(NAME app_stop_errors
            COMMAND ${IBP_ISOLATE} sh ${CMAKE_CURRENT_LIST_DIR}/check_stop_errors.sh
                    ${CMAKE_CURRENT_LIST_DIR}/data/stop_errors.txt $<TARGET_FILE_DIR:ibp-isp>)
        set_tests_properties(app_stop_errors PROPERTIES TIMEOUT 60)
        add_test(NAME app_monitor
            COMMAND ${IBP_ISOLATE} sh ${CMAKE_CURRENT_LIST_DIR}/check_monitor.sh $<TARGET_FILE_DIR:ibp-isp>)
        set_tests_properties(app_monitor PROPERTIES TIMEOUT 60)
    endif()
endif()

