# The target `lint` (clang-format, clang-tidy, and mypy where it is installed), and `format`, which applies the format.

find_program(CLANG_FORMAT clang-format)
find_program(CLANG_TIDY clang-tidy)
find_program(MYPY mypy)

file(GLOB_RECURSE headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/*.h")

add_custom_target(lint)

if(CLANG_FORMAT)
    add_custom_target(lint_format
        COMMAND "${CLANG_FORMAT}" --dry-run -Werror ${sources} ${headers}
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
        COMMENT "Checking the format"
        VERBATIM
    )
    add_custom_target(format
        COMMAND "${CLANG_FORMAT}" -i ${sources} ${headers}
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
        VERBATIM
    )
else()
    add_custom_target(lint_format
        COMMAND ${CMAKE_COMMAND} -E echo "clang-format is missing: install it, then configure again"
        COMMAND ${CMAKE_COMMAND} -E false
        VERBATIM
    )
endif()
add_dependencies(lint lint_format)

if(CLANG_TIDY)
    # One command per source, so that they run side by side and only for what has changed.
    set(tidy_stamps "")
    foreach(source IN LISTS sources)
        set(stamp "${PROJECT_BINARY_DIR}/lint/${source}.tidy")
        cmake_path(GET stamp PARENT_PATH stamp_dir)
        file(MAKE_DIRECTORY "${stamp_dir}")
        add_custom_command(
            OUTPUT "${stamp}"
            COMMAND "${CLANG_TIDY}" -p "${PROJECT_BINARY_DIR}" --quiet "${PROJECT_SOURCE_DIR}/${source}"
            COMMAND ${CMAKE_COMMAND} -E touch "${stamp}"
            DEPENDS ${source} ${headers} .clang-tidy
            COMMENT "clang-tidy ${source}"
            VERBATIM
        )
        list(APPEND tidy_stamps "${stamp}")
    endforeach()
    add_custom_target(lint_tidy DEPENDS ${tidy_stamps})
else()
    add_custom_target(lint_tidy
        COMMAND ${CMAKE_COMMAND} -E echo "clang-tidy is missing: install it, then configure again"
        COMMAND ${CMAKE_COMMAND} -E false
        VERBATIM
    )
endif()
add_dependencies(lint lint_tidy)

if(MYPY)
    add_custom_target(lint_types
        COMMAND ${CMAKE_COMMAND} -E env "MYPYPATH=${PROJECT_SOURCE_DIR}"
            "${MYPY}" --strict --python-version 3.10 --explicit-package-bases
            --cache-dir "${PROJECT_BINARY_DIR}/mypy"
            talvern_client/utils/json_database.pyi examples/inventory.py
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
        COMMENT "Checking the types"
        VERBATIM
    )
else()
    add_custom_target(lint_types
        COMMAND ${CMAKE_COMMAND} -E echo "mypy is not installed: stub and example are not type-checked"
        VERBATIM
    )
endif()
add_dependencies(lint lint_types)
