# Targets that run a program of the source tree on the package folder: `example`, `bench`, `bench_import`, and
# `bench_docs`, which measures at length and brings docs/performance.md and its chart up to date.

# Each run starts in a new, empty folder of the build tree: nothing is left over from the last one.
function(json_database_run_target name script)
    set(dir "${PROJECT_BINARY_DIR}/run/${name}")
    add_custom_target(${name}
        COMMAND ${CMAKE_COMMAND} -E rm -rf "${dir}"
        COMMAND ${CMAKE_COMMAND} -E make_directory "${dir}"
        COMMAND ${CMAKE_COMMAND} -E chdir "${dir}" ${CMAKE_COMMAND} -E env ${run_environment}
            "${cpython310_executable}" "${PROJECT_SOURCE_DIR}/${script}" ${ARGN}
        COMMENT "Running ${script}"
        USES_TERMINAL
        VERBATIM
    )
    add_dependencies(${name} json_database package_files)
endfunction()

json_database_run_target(example examples/inventory.py)
json_database_run_target(bench bench/run.py)
json_database_run_target(bench_import bench/import_time.py)
json_database_run_target(bench_docs bench/run.py --million --docs "${PROJECT_SOURCE_DIR}/docs")
