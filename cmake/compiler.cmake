# Enables C++ with a compiler that has what the module needs of C++20, or stops and says which one does.

# The module takes its name and its headers from an interpreter that has to run here.
if(CMAKE_CROSSCOMPILING)
    message(FATAL_ERROR "Cross-compilation is not supported: build on a system that runs the CPython 3.10 it is for.")
endif()

# CMake's own message would be the one for a machine without any compiler.
if(NOT "$ENV{CXX}" STREQUAL "" AND NOT CMAKE_CXX_COMPILER)
    separate_arguments(words UNIX_COMMAND "$ENV{CXX}")
    list(GET words 0 program)
    find_program(found NAMES "${program}" NO_CACHE)
    if(NOT found)
        message(FATAL_ERROR "The environment variable CXX names no program that is there: \"${program}\". Let it name one, "
            "such as CXX=g++, or unset it to have one looked for.")
    endif()
endif()

include(CheckLanguage)
check_language(CXX)
if(NOT CMAKE_CXX_COMPILER)
    unset(CMAKE_CXX_COMPILER CACHE) # so that the next run looks again
    message(FATAL_ERROR "No C++ compiler was found. Install one (g++ or clang on Debian and Ubuntu, gcc-c++ or clang on "
        "Fedora), or say where it is: -DCMAKE_CXX_COMPILER=<file>")
endif()
enable_language(CXX)

include(CheckCXXSourceCompiles)

# The parts that came last. A version number would not do: clang has the library of the GCC beside it.
function(json_database_check_compiler)
    set(CMAKE_CXX_STANDARD 20)
    set(CMAKE_REQUIRED_QUIET ON)
    check_cxx_source_compiles("
        #include <charconv>
        constinit double number = 0;
        int main(int, char** texts) { return std::from_chars(texts[0], texts[1], number).ec != std::errc(); }
        " JSON_DATABASE_COMPILER_SUITS)
    if(NOT JSON_DATABASE_COMPILER_SUITS)
        unset(JSON_DATABASE_COMPILER_SUITS CACHE)
        message(FATAL_ERROR "${CMAKE_CXX_COMPILER} (${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}) lacks parts of "
            "C++20 or of its library. Install GCC 11 or newer, or clang 13 or newer beside that GCC's library, and name "
            "it: CXX=g++-11 cmake --fresh --preset release")
    endif()
endfunction()
json_database_check_compiler()
