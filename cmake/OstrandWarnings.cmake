# Warnings for the project's own targets. Third-party headers come in as
# system includes, so these flags judge only our code.
function(ostrand_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow)
    if(OSTRAND_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

# The signal-processing code also converts between double, float and integer
# counts everywhere; make every such narrowing visible.
function(ostrand_strict_warnings target)
    ostrand_warnings(${target})
    target_compile_options(${target} PRIVATE -Wconversion -Wsign-conversion -Wdouble-promotion)
endfunction()
