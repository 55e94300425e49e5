# One test per file: tests/test_*.py. Files that know a long form are tested in that one too when `ctest` is told
# `-C Long`; it takes about two minutes.

enable_testing()

set(run_environment
    "PYTHONPATH=${package_root}"
    "PYTHONDONTWRITEBYTECODE=1" # the package folder and the source tree stay clean
    "PYTHONNOUSERSITE=1"
    ${sanitizer_environment}
)

# Preloaded into the processes that the tests under faults start.
set(fault_environment "")
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    add_library(fault_library MODULE tests/fault_library.cpp)
    target_link_libraries(fault_library PRIVATE ${CMAKE_DL_LIBS})
    set_target_properties(fault_library PROPERTIES CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON)
    json_database_warnings(fault_library)
    set(fault_environment "JSON_DATABASE_FAULT_LIBRARY=$<TARGET_FILE:fault_library>")
endif()

set(test_environment ${run_environment} ${fault_environment})
list(TRANSFORM test_environment REPLACE
    "^(PYTHONPATH=.*)$" "\\1:${PROJECT_SOURCE_DIR}/tests:${PROJECT_SOURCE_DIR}/bench")

function(json_database_test name file timeout environment)
    add_test(NAME ${name} COMMAND "${cpython310_executable}" -X dev -m unittest -v ${file} ${ARGN})
    set_tests_properties(${name} PROPERTIES
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}/tests"
        ENVIRONMENT "${test_environment};${environment}"
        TIMEOUT ${timeout}
    )
endfunction()

file(GLOB files CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/test_*.py")
foreach(file IN LISTS files)
    cmake_path(GET file STEM name)
    json_database_test(${name} ${name} 300 "")
    file(STRINGS "${file}" long REGEX LONG)
    if(long)
        json_database_test(long_${name} ${name} 900 "JSON_DATABASE_LONG=1" CONFIGURATIONS Long)
    endif()
endforeach()
