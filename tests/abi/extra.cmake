# Checks of the public headers and of the shared object's symbol table.

# Only the library's own names may leave the shared object. For the cross
# build the cross nm reads the armhf object; nothing needs to run.
add_test(NAME exported_names
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check_exports.sh ${CMAKE_NM} $<TARGET_FILE:ibp>
            ${CMAKE_CURRENT_LIST_DIR}/names
            ${PROJECT_SOURCE_DIR}/include/ibp/isp_interface.h)
add_test(NAME library_soname
    COMMAND sh -c "${CMAKE_READELF} -d \"$1\" | grep -q 'SONAME.*\\[libibp\\.so\\.0\\]'"
            soname $<TARGET_FILE:ibp>)
# Both read the object with the build host's tools, also for a target build.
set_tests_properties(exported_names library_soname PROPERTIES LABELS host)

# Each public header alone and first, strict C11 and C++17 -pedantic.
add_test(NAME headers_alone
    COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_headers_alone.sh ${CMAKE_C_COMPILER} ${CMAKE_CXX_COMPILER}
            ${PROJECT_SOURCE_DIR}/include ${IBP_GENERATED_INCLUDE})
set_tests_properties(headers_alone PROPERTIES LABELS host TIMEOUT 120)
