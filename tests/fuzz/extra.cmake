# The fuzz targets, built with the ordinary compiler against a small main that
# feeds them every file of their corpus and of their regressions: one CTest
# entry per target, in the test namespaces. tests/fuzz/CMakeLists.txt builds
# the same sources with libFuzzer (make fuzz).
file(GLOB IBP_FUZZ_SOURCES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/fuzz_*.cpp)
foreach(src ${IBP_FUZZ_SOURCES})
    get_filename_component(name ${src} NAME_WE)
    string(REGEX REPLACE "^fuzz_" "" target ${name})
    add_executable(replay_${target} ${src} ${CMAKE_CURRENT_LIST_DIR}/replay_main.cpp)
    target_include_directories(replay_${target} PRIVATE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(replay_${target} PRIVATE ibp_static)
    if(IBP_LINK_STATIC)
        target_link_options(replay_${target} PRIVATE -static)
    endif()
    add_test(NAME fuzz_replay_${target}
        COMMAND ${IBP_ISOLATE} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:replay_${target}>
                ${CMAKE_CURRENT_LIST_DIR}/corpus/${target} ${CMAKE_CURRENT_LIST_DIR}/regressions/${target})
    set_tests_properties(fuzz_replay_${target} PROPERTIES TIMEOUT 120)
endforeach()
