# zel_target(NAME): warnings, visibility and sanitizers that every target of this project has.
function(zel_target name)
    set_target_properties(${name} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON)
    target_compile_options(${name} PRIVATE
        -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Werror
        -Wno-error=deprecated-copy
        # g++ 12 warns of a copy inside std::string's operator+ that cannot happen (GCC bug 105651).
        $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
        $<$<CONFIG:Release>:-O3>)
    if(ZEL_SANITIZER)
        target_compile_options(${name} PRIVATE
            -fsanitize=${ZEL_SANITIZER} -fno-sanitize-recover=all -fno-omit-frame-pointer
            # g++ says itself that this warning is unreliable in instrumented code.
            $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
        target_link_options(${name} PRIVATE -fsanitize=${ZEL_SANITIZER})
    endif()
    if(ZEL_FUZZ)
        target_compile_options(${name} PRIVATE -fsanitize=fuzzer-no-link)
    endif()
    if(ZEL_THREAD_SAFETY_ANALYSIS)
        target_compile_options(${name} PRIVATE -Wthread-safety)
    endif()
endfunction()

# zel_test_target(NAME): the same for code that only tests run. It is compiled often and runs once,
# and under the sanitizers optimising it takes four times as long as compiling it.
function(zel_test_target name)
    zel_target(${name})
    target_compile_options(${name} PRIVATE -O0)
endfunction()
