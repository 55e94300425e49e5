# Instruments the module alone: the interpreter stays as it is, so the sanitizers' runtime, which has to be the
# first library of the process, is preloaded into it when the tests run.

set(JSON_DATABASE_SANITIZERS "" CACHE STRING "Sanitizers for the module, such as address,undefined")

# The full path of a library that belongs to the compiler.
function(json_database_compiler_library name result)
    execute_process(
        COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
        OUTPUT_VARIABLE path
        OUTPUT_STRIP_TRAILING_WHITESPACE
    )
    if(NOT IS_ABSOLUTE "${path}")
        message(FATAL_ERROR "${CMAKE_CXX_COMPILER} has no ${name}, which JSON_DATABASE_SANITIZERS needs.")
    endif()
    file(REAL_PATH "${path}" path)
    if(path MATCHES "[ :]")
        message(FATAL_ERROR "LD_PRELOAD would be split at the spaces and colons of ${path}.")
    endif()
    set(${result} "${path}" PARENT_SCOPE)
endfunction()

# Also sets `sanitizer_environment`, what a process needs to load the module: empty without sanitizers.
function(json_database_sanitizers target)
    set(sanitizer_environment "" PARENT_SCOPE)
    if(NOT JSON_DATABASE_SANITIZERS)
        return()
    endif()

    set(flags -fsanitize=${JSON_DATABASE_SANITIZERS} -fno-sanitize-recover=all)
    target_compile_options(${target} PRIVATE ${flags} -O1 -g -fno-omit-frame-pointer)
    target_compile_definitions(${target} PRIVATE _GLIBCXX_ASSERTIONS)
    target_link_options(${target} PRIVATE ${flags})

    set(preload "")
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        target_link_options(${target} PRIVATE -shared-libsan)
        json_database_compiler_library(libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so runtime)
        list(APPEND preload "${runtime}") # holds the runtime of "undefined" too
    else()
        if(JSON_DATABASE_SANITIZERS MATCHES "address")
            json_database_compiler_library(libasan.so runtime)
            list(APPEND preload "${runtime}")
        endif()
        if(JSON_DATABASE_SANITIZERS MATCHES "undefined")
            json_database_compiler_library(libubsan.so runtime)
            list(APPEND preload "${runtime}")
        endif()
    endif()
    # Without it the runtime finds no __cxa_throw to wrap at start, and aborts at the first exception.
    json_database_compiler_library(libstdc++.so.6 runtime)
    list(APPEND preload "${runtime}")
    list(JOIN preload ":" preload)

    set(asan_options
        detect_leaks=0 # the interpreter keeps memory until it exits
        allocator_may_return_null=1 # a failed allocation is a MemoryError, as without sanitizers
        handle_segv=2 # not the handler of -X dev, which knows nothing of C++
    )
    list(JOIN asan_options ":" asan_options)
    set(sanitizer_environment
        "LD_PRELOAD=${preload}"
        "PYTHONMALLOC=malloc" # the interpreter's own allocator would hide most faults
        "ASAN_OPTIONS=${asan_options}"
        "UBSAN_OPTIONS=print_stacktrace=1"
        PARENT_SCOPE
    )
endfunction()
