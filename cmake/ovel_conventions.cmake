# How to compile every target of the project. Sets nothing globally, so a project
# that adds this one as a subdirectory keeps its own flags.

# Flags that all code in one process must share, including GoogleTest's.
function(ovel_instrument target)
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
        # An x87 register holds a double with more digits than memory does, so a
        # comparison of two equal sums could tell them apart.
        target_compile_options(${target} PRIVATE -msse2 -mfpmath=sse)
    endif()
    if(OVEL_SANITIZE)
        set(sanitizers ${OVEL_SANITIZE})
        if(OVEL_SANITIZE STREQUAL "address")
            # Both in one build find what each finds alone, in less time than two builds.
            string(APPEND sanitizers ,undefined)
        endif()
        set(sanitize -fsanitize=${sanitizers} -fno-sanitize-recover=all)
        target_compile_options(${target} PRIVATE ${sanitize} -fno-omit-frame-pointer)
        target_link_options(${target} PRIVATE ${sanitize})
        target_compile_definitions(${target} PRIVATE OVEL_SANITIZED)
    endif()
endfunction()

# Requirements for the project's own code.
function(ovel_conventions target)
    ovel_instrument(${target})
    set_target_properties(${target} PROPERTIES
        CXX_STANDARD 20
        CXX_STANDARD_REQUIRED ON
        CXX_EXTENSIONS OFF
        CXX_VISIBILITY_PRESET hidden)
    # The prefix maps make the paths in failed checks relative to the root, and
    # those in debug information the same on every machine.
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wpedantic $<$<BOOL:${OVEL_WERROR}>:-Werror>
        # gcc 12 wrongly reports overlapping copies when strings are concatenated.
        $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
        -ffile-prefix-map=${PROJECT_BINARY_DIR}=build)
endfunction()
