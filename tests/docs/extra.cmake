# The API reference builds without a warning, so a public name added without
# a description fails the tests and not only `make docs`.
if(TARGET docs AND NOT CMAKE_CROSSCOMPILING)
    add_test(NAME api_reference COMMAND ${CMAKE_COMMAND} --build ${PROJECT_BINARY_DIR} --target docs)
    set_tests_properties(api_reference PROPERTIES TIMEOUT 120)
endif()
