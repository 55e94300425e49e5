# Warnings of our own code. Whether they are errors is the builder's choice (CMAKE_COMPILE_WARNING_AS_ERROR),
# which the presets make: a future compiler's new warning must not break a user's build.

function(json_database_warnings target)
    # -Wold-style-cast is missing on purpose: the interpreter's own macros trip it.
    target_compile_options(${target} PRIVATE
        -Wall
        -Wextra
        -Wpedantic
        -Wshadow
        -Wconversion
        -Wsign-conversion
        -Wnon-virtual-dtor
    )
endfunction()
