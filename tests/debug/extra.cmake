# The command line tests start the programs that CMake names here.
if(TARGET ibp-dt AND TARGET ibp-isp AND TARGET ibp-ping)
    add_dependencies(test_dt ibp-dt ibp-isp ibp-ping)
    set_property(TEST test_dt APPEND PROPERTY ENVIRONMENT "IBP_DT=$<TARGET_FILE:ibp-dt>"
        "IBP_ISP=$<TARGET_FILE:ibp-isp>" "IBP_PING=$<TARGET_FILE:ibp-ping>" "IBP_EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}")
endif()
