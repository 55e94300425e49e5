# One test per file: tests/test_*.py, and tests/slow_*.py under the label "slow".

enable_testing()

set(run_environment
    "PYTHONPATH=${package_root}"
    "PYTHONDONTWRITEBYTECODE=1" # the package folder and the source tree stay clean
    "PYTHONNOUSERSITE=1"
    ${sanitizer_environment}
)

function(json_database_tests pattern timeout label)
    file(GLOB files CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/tests/${pattern}")
    set(environment ${run_environment})
    list(TRANSFORM environment REPLACE "^(PYTHONPATH=.*)$" "\\1:${PROJECT_SOURCE_DIR}/tests")
    foreach(file IN LISTS files)
        cmake_path(GET file STEM name)
        add_test(NAME ${name} COMMAND "${cpython310_executable}" -X dev -m unittest -v ${name})
        set_tests_properties(${name} PROPERTIES
            WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}/tests"
            ENVIRONMENT "${environment}"
            LABELS "${label}"
            TIMEOUT ${timeout}
        )
    endforeach()
endfunction()

json_database_tests(test_*.py 300 "")
json_database_tests(slow_*.py 900 slow)
