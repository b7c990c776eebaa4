# The command line tests read their data through IBP_TEST_DATA_DIR, which
# isolate.sh also keeps visible, and start the programs that CMake names.
foreach(t test_cli test_dt)
    set_property(TEST ${t} APPEND PROPERTY ENVIRONMENT "IBP_TEST_DATA_DIR=${CMAKE_CURRENT_LIST_DIR}")
endforeach()
if(TARGET ibp-dt AND TARGET ibp-isp)
    add_dependencies(test_dt ibp-dt ibp-isp)
    set_property(TEST test_dt APPEND PROPERTY ENVIRONMENT
        "IBP_DT=$<TARGET_FILE:ibp-dt>" "IBP_ISP=$<TARGET_FILE:ibp-isp>" "IBP_EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}")
endif()
