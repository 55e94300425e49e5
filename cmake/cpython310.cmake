# Finds a CPython 3.10 that runs and has its C headers, or stops and says what to do.
#
# Order: Python_EXECUTABLE or Python_ROOT_DIR when given (then nothing else will do; Python3_... means the same), an
# active virtual environment, pyenv's 3.10 versions (newest first), the interpreters on the PATH.
#
# Why not find_package(Python): it takes the first `python3.10` on the PATH, and where that is a pyenv shim
# for a version that isn't switched on, it fails although usable interpreters are there.
#
# Sets cpython310_executable, cpython310_module_suffix, cpython310_prefix and cpython310_site_dir (relative to
# the prefix), and makes the target cpython310::module, which carries the headers.

set(cpython310_describe "${CMAKE_CURRENT_LIST_DIR}/describe_python.py")

# The names that CMake's FindPython3 reads.
foreach(name IN ITEMS EXECUTABLE ROOT_DIR)
    if(Python3_${name} AND NOT Python_${name})
        set(Python_${name} "${Python3_${name}}")
    endif()
endforeach()

# Leaves in `misfit` why the interpreter can't be used, or an empty string and its facts in `facts`.
function(cpython310_examine interpreter)
    set(facts "")
    execute_process(
        COMMAND "${interpreter}" -E "${cpython310_describe}"
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
        OUTPUT_VARIABLE output
        ERROR_VARIABLE errors
        RESULT_VARIABLE result
        OUTPUT_STRIP_TRAILING_WHITESPACE
        TIMEOUT 30
    )
    string(REPLACE "\n" ";" lines "${output}")
    if(NOT result EQUAL 0)
        string(STRIP "${errors}" errors)
        string(REGEX REPLACE "\n.*" "" errors "${errors}")
        set(misfit "does not run (${result}) ${errors}")
    elseif(NOT output MATCHES "^CPython 3\\.10[^0-9]")
        list(GET lines 0 version)
        set(misfit "is ${version}")
    else()
        list(GET lines 2 include_dir)
        if(EXISTS "${include_dir}/Python.h")
            set(misfit "")
            set(facts "${lines}")
        else()
            list(GET lines 0 version)
            set(misfit "is ${version} without its C headers (no Python.h in ${include_dir})")
        endif()
    endif()
    message(VERBOSE "CPython 3.10: ${interpreter} ${misfit}")
    return(PROPAGATE misfit facts)
endfunction()

# The interpreters to try, in order, in `candidates`; `named` tells whether the user allows no others.
function(cpython310_list_candidates)
    set(candidates "")
    set(named TRUE)
    if(Python_EXECUTABLE)
        set(candidates "${Python_EXECUTABLE}")
        return(PROPAGATE candidates named)
    endif()
    if(Python_ROOT_DIR)
        file(REAL_PATH "${Python_ROOT_DIR}" root EXPAND_TILDE BASE_DIRECTORY "${PROJECT_SOURCE_DIR}")
        foreach(name IN ITEMS python3.10 python3 python)
            if(EXISTS "${root}/bin/${name}")
                list(APPEND candidates "${root}/bin/${name}")
            endif()
        endforeach()
        if(NOT candidates)
            message(FATAL_ERROR "There is no Python interpreter in ${root}/bin (named by Python_ROOT_DIR).")
        endif()
        return(PROPAGATE candidates named)
    endif()

    set(named FALSE)
    if(DEFINED ENV{VIRTUAL_ENV})
        list(APPEND candidates "$ENV{VIRTUAL_ENV}/bin/python")
    endif()

    set(pyenv_root "$ENV{PYENV_ROOT}")
    if(NOT pyenv_root)
        set(pyenv_root "$ENV{HOME}/.pyenv")
    endif()
    file(GLOB versions "${pyenv_root}/versions/3.10[.-]*")
    list(SORT versions COMPARE NATURAL ORDER DESCENDING)
    list(TRANSFORM versions APPEND "/bin/python3.10")
    list(APPEND candidates ${versions})

    string(REPLACE ":" ";" path "$ENV{PATH}")
    list(APPEND path /usr/local/bin /usr/bin)
    list(FILTER path EXCLUDE REGEX "^/bin/?$") # /usr/bin once more, or without a Python
    foreach(name IN ITEMS python3.10 python3 python)
        foreach(dir IN LISTS path)
            if(EXISTS "${dir}/${name}")
                list(APPEND candidates "${dir}/${name}")
            endif()
        endforeach()
    endforeach()
    list(REMOVE_DUPLICATES candidates)
    return(PROPAGATE candidates named)
endfunction()

set(cpython310_get_headers "install its headers (the package python3.10-dev where the distribution has a python3.10)")

cpython310_list_candidates()
set(cpython310_rejected "")
foreach(candidate IN LISTS candidates)
    cpython310_examine("${candidate}")
    if(NOT misfit)
        break()
    endif()
    string(APPEND cpython310_rejected "\n  ${candidate} ${misfit}")
endforeach()

if(NOT facts AND named)
    set(cure "name another interpreter, or none to have one looked for (cmake -U 'Python*' ...)")
    if(cpython310_rejected MATCHES "without its C headers")
        set(cure "${cpython310_get_headers}, or ${cure}")
    endif()
    message(FATAL_ERROR
        "The Python named by Python_EXECUTABLE or Python_ROOT_DIR is not a usable CPython 3.10:"
        "${cpython310_rejected}\nTo go on, ${cure}.")
elseif(NOT facts)
    set(cure "")
    if(cpython310_rejected MATCHES "without its C headers")
        set(cure "\n  - ${cpython310_get_headers}; the interpreter is there already")
    endif()
    set(seen "No Python at all is on the PATH.")
    if(cpython310_rejected)
        set(seen "Looked at:${cpython310_rejected}")
    endif()
    message(FATAL_ERROR
        "No usable CPython 3.10 was found. One of these helps:${cure}\n"
        "  - pyenv install 3.10\n"
        "  - apt-get install python3.10 python3.10-dev, where the distribution has them: Ubuntu 22.04 does\n"
        "  - build in a container image that has it, such as python:3.10\n"
        "  - say where it is: -DPython_ROOT_DIR=<folder that has bin/python3.10>, or -DPython_EXECUTABLE=<file>\n"
        "${seen}")
endif()

list(GET facts 0 cpython310_version)
list(GET facts 1 cpython310_executable)
list(GET facts 2 3 cpython310_include_dirs)
list(GET facts 4 cpython310_module_suffix)
list(GET facts 5 cpython310_prefix)
list(GET facts 6 cpython310_multiarch)
list(GET facts 7 cpython310_site_dir)
list(REMOVE_DUPLICATES cpython310_include_dirs)
message(STATUS "Found ${cpython310_version}: ${cpython310_executable}")
# Both are empty on systems without Debian's names. A compiler for another machine would build a module that is named
# for this interpreter and can't be loaded by it.
if(cpython310_multiarch AND CMAKE_CXX_LIBRARY_ARCHITECTURE
        AND NOT cpython310_multiarch STREQUAL CMAKE_CXX_LIBRARY_ARCHITECTURE)
    message(FATAL_ERROR "${CMAKE_CXX_COMPILER} builds for ${CMAKE_CXX_LIBRARY_ARCHITECTURE}, and "
        "${cpython310_executable} runs on ${cpython310_multiarch}: name a compiler for the machine of the interpreter.")
endif()

# The headers of an imported target count as system headers: no warnings out of them.
add_library(cpython310::module INTERFACE IMPORTED)
target_include_directories(cpython310::module INTERFACE ${cpython310_include_dirs})
