# Checks of the default entry points in the shared object.

# Every plain name is a weak alias at the address of its underscore name. The
# cross nm reads the armhf object, so this needs nothing run on the target.
add_test(NAME interface_weak_aliases
    COMMAND sh ${CMAKE_CURRENT_LIST_DIR}/check_weak_aliases.sh ${CMAKE_NM} $<TARGET_FILE:ibp> 206)
set_tests_properties(interface_weak_aliases PROPERTIES LABELS host)

# A program that brings its own ISP_ZoomIn and links the shared library, as a
# service with an image library does; not in a static build (qemu-user).
if(NOT IBP_LINK_STATIC)
    add_executable(interface_override ${CMAKE_CURRENT_LIST_DIR}/interface_override.c)
    target_link_libraries(interface_override PRIVATE ibp)
    # Its ISP_ZoomIn goes into the dynamic symbol table, where the loader
    # finds it before the library's weak alias.
    set_target_properties(interface_override PROPERTIES ENABLE_EXPORTS ON)
    target_compile_options(interface_override PRIVATE -Werror)
    add_test(NAME interface_override COMMAND ${IBP_ISOLATE} $<TARGET_FILE:interface_override>)
    set_tests_properties(interface_override PROPERTIES TIMEOUT 60)
endif()
