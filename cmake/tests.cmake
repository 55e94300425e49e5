# One test per file: tests/test_*.py, and tests/slow_*.py, which `ctest` leaves out unless it is told `-C Slow`.

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

function(json_database_tests pattern timeout)
    file(GLOB files CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/${pattern}")
    set(environment ${run_environment} ${fault_environment})
    list(TRANSFORM environment REPLACE "^(PYTHONPATH=.*)$" "\\1:${PROJECT_SOURCE_DIR}/tests:${PROJECT_SOURCE_DIR}/bench")
    foreach(file IN LISTS files)
        cmake_path(GET file STEM name)
        add_test(NAME ${name} COMMAND "${cpython310_executable}" -X dev -m unittest -v ${name} ${ARGN})
        set_tests_properties(${name} PROPERTIES
            WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}/tests"
            ENVIRONMENT "${environment}"
            TIMEOUT ${timeout}
        )
    endforeach()
endfunction()

json_database_tests(test_*.py 300)
json_database_tests(slow_*.py 900 CONFIGURATIONS Slow)
