# cmake -DHEADERS="a.h;b.h" -P docs_file_check.cmake
# Doxygen reports undocumented names only in files that are documented
# themselves, so every public header opens with a @file block.
foreach(header IN LISTS HEADERS)
    file(READ "${header}" text LIMIT 400)
    if(NOT text MATCHES "/\\*\\* @file")
        list(APPEND bare "${header}")
    endif()
endforeach()
if(bare)
    list(JOIN bare "\n  " bare)
    message(FATAL_ERROR "headers without a /** @file */ block, whose names Doxygen would not check:\n  ${bare}")
endif()
