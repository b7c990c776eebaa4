# An install made with `cmake --install --prefix` into a scratch folder serves
# a consumer through pkg-config, and the uninstall removes it again. A
# sanitized library needs its runtime in the consumer as well.
if(NOT CMAKE_CROSSCOMPILING)
    set(IBP_CONSUMER_FLAGS "")
    if(IBP_SANITIZE)
        set(IBP_CONSUMER_FLAGS -fsanitize=address,undefined)
    elseif(IBP_TSAN)
        set(IBP_CONSUMER_FLAGS -fsanitize=thread)
    endif()
    add_test(NAME install_prefix_consumer
        COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_install.sh ${PROJECT_BINARY_DIR} ${PROJECT_VERSION}
                ${IBP_CONSUMER_FLAGS})
    set_tests_properties(install_prefix_consumer PROPERTIES TIMEOUT 120 ENVIRONMENT "CC=${CMAKE_C_COMPILER}")
endif()
