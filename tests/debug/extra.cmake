# The command line tests start the programs that CMake names here.
if(TARGET ibp-dt AND TARGET ibp-isp)
    add_dependencies(test_dt ibp-dt ibp-isp)
    set_property(TEST test_dt APPEND PROPERTY ENVIRONMENT
        "IBP_DT=$<TARGET_FILE:ibp-dt>" "IBP_ISP=$<TARGET_FILE:ibp-isp>" "IBP_EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}")
endif()
