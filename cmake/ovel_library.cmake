# The targets of the library itself: the shared one, or with BUILD_SHARED_LIBS=OFF
# the static one, and the shared one's variants for programs built with a sanitizer.

# The sources and flags that all of them, and the objects of the static one, share.
function(ovel_build target)
    ovel_conventions(${target})
    target_sources(${target} PRIVATE ${ovel_sources} ${ovel_kernel_sources})
    target_compile_features(${target} PUBLIC cxx_std_20)
    target_include_directories(${target} PRIVATE
        ${PROJECT_SOURCE_DIR}/sources ${PROJECT_SOURCE_DIR}/platform)
    ovel_publish(${target} PUBLIC)
    target_link_libraries(${target} PRIVATE Threads::Threads)
    # Each function begins with a cache line. Otherwise a change in one function moves the others,
    # and some net rows become up to a tenth slower or faster.
    target_compile_options(${target} PRIVATE -falign-functions=64)
    if(NOT WIN32)
        # No semantic interposition: no program replaces the library's functions, so
        # the library calls and inlines them directly.
        target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    endif()
    if(OVEL_POISON)
        # An allocator reads the headers that it keeps poisoned.
        target_compile_definitions(${target} PRIVATE OVEL_POISON)
    endif()
endfunction()

# What programs that link `target` need.
function(ovel_publish target scope)
    target_compile_features(${target} ${scope} cxx_std_20)
    target_include_directories(${target} ${scope}
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/includes>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/ovel>)
endfunction()

# A shared library called ovel, whatever the name of its target.
function(ovel_add_shared target)
    add_library(${target} SHARED)
    ovel_build(${target})
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ovel
        EXPORT_NAME ovel
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        DEFINE_SYMBOL OVEL_BUILDING)
    if(WIN32)
        # Names it ovel.dll instead of the compiler's usual libovel.dll.
        set_target_properties(${target} PROPERTIES PREFIX "")
    else()
        # Symbolic functions, for the reason above. nodelete: the time server's
        # thread runs until the process ends, so its code must stay mapped that
        # long.
        target_link_options(${target} PRIVATE
            LINKER:--version-script=${PROJECT_SOURCE_DIR}/sources/ovel.map
            LINKER:-Bsymbolic-functions
            LINKER:-z,nodelete)
        set_target_properties(${target} PROPERTIES
            LINK_DEPENDS ${PROJECT_SOURCE_DIR}/sources/ovel.map)
    endif()
endfunction()

# The static library is one object in which the operators new and delete are local,
# as the version script makes them in the shared one.
function(ovel_add_static target)
    if(WIN32)
        message(FATAL_ERROR "On Windows ovel is a DLL only: leave BUILD_SHARED_LIBS on")
    endif()
    add_library(${target}_objects OBJECT)
    ovel_build(${target}_objects)
    set_target_properties(${target}_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
    set(object ${PROJECT_BINARY_DIR}/ovel_static.o)
    set(bits "")
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)
        set(bits -m elf_i386)
    endif()
    # Without groups: a group's local name could be discarded in favour of
    # another's. The priority in the section's name makes the linker put the library's
    # constructors before those of the program, whose static objects may use the library.
    add_custom_command(OUTPUT ${object} VERBATIM COMMAND_EXPAND_LISTS
        COMMAND ${CMAKE_LINKER} ${bits} -r --force-group-allocation -o ${object}
            $<TARGET_OBJECTS:${target}_objects>
        COMMAND ${CMAKE_OBJCOPY} --localize-hidden --wildcard
            --rename-section .init_array=.init_array.00101
            --localize-symbol=_Znw* --localize-symbol=_Zna*
            --localize-symbol=_Zdl* --localize-symbol=_Zda* ${object}
        DEPENDS ${target}_objects $<TARGET_OBJECTS:${target}_objects>)
    add_library(${target} STATIC ${object})
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE CXX)
    set_source_files_properties(${object} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
    ovel_publish(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE Threads::Threads)
    # For the reason above, a plugin with the library stays mapped as well.
    target_link_options(${target} INTERFACE LINKER:-z,nodelete)
endfunction()

# The library instrumented for `sanitizer`, with the same name in a separate folder.
# It does not link the sanitizer's runtime: a program brings that of its own
# compiler.
function(ovel_add_variant target sanitizer)
    set(OVEL_POISON OFF)
    if(sanitizer STREQUAL "address")
        set(OVEL_POISON ON)
    endif()
    ovel_add_shared(${target})
    target_compile_options(${target} PRIVATE
        -fsanitize=${sanitizer} -fno-omit-frame-pointer -O2 -g1)
    if(sanitizer STREQUAL "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # The names of globals would carry the path of the build, and so would the call before
        # their construction, which is all in one file. What clients get wrong is on the heap,
        # and their own globals keep their checks.
        target_compile_options(${target} PRIVATE --param=asan-globals=0)
        set_source_files_properties(${PROJECT_SOURCE_DIR}/sources/ovel_library.cpp PROPERTIES
            COMPILE_OPTIONS
            "$<$<STREQUAL:$<TARGET_PROPERTY:NAME>,${target}>:-fno-sanitize=address>")
    endif()
    target_compile_definitions(${target} PRIVATE OVEL_SANITIZED)
    set_target_properties(${target} PROPERTIES
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/variants/${sanitizer}
        EXCLUDE_FROM_ALL $<NOT:$<BOOL:${OVEL_INSTALL}>>)
endfunction()
