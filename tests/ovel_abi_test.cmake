# Reads the dynamic symbols of LIBRARY with NM. Fails on an unexpected name, on one that is
# missing or lacks the version of the release MAJOR, and on an allocation operator that the
# library would import from the program.
cmake_minimum_required(VERSION 3.25)

function(names_of result)
    execute_process(COMMAND ${NM} -DC ${ARGN} ${LIBRARY}
        OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
    # Brackets and semicolons would be lists to CMake.
    string(REPLACE "[" "(" text "${text}")
    string(REPLACE "]" ")" text "${text}")
    string(REPLACE ";" "," text "${text}")
    string(STRIP "${text}" text)
    string(REPLACE "\n" ";" lines "${text}")
    # Address, which undefined names lack, and one letter of class.
    list(TRANSFORM lines REPLACE "^[0-9a-f ]* [A-Za-z] " "")
    set(${result} "${lines}" PARENT_SCOPE)
endfunction()

names_of(defined --defined-only)
names_of(undefined --undefined-only)
set(faults "")

# The names include the version itself.
set(version OVEL_${MAJOR})
list(REMOVE_ITEM defined ${version} ${version}@@${version})
foreach(name IN LISTS defined)
    if(NOT name MATCHES "@@${version}$")
        string(APPEND faults "  without ${version}: ${name}\n")
    endif()
endforeach()
list(TRANSFORM defined REPLACE "@@.*$" "")

set(made "typeinfo for |typeinfo name for |vtable for |VTT for ")
set(thunk "virtual thunk to |non-virtual thunk to |covariant return thunk to ")
foreach(name IN LISTS defined)
    if(NOT name MATCHES "^(${made}|${thunk})?ovel::"
            AND NOT name MATCHES "^ovel_(malloc|calloc|realloc|free)$")
        string(APPEND faults "  foreign: ${name}\n")
    endif()
endforeach()

foreach(name IN ITEMS ovel_malloc ovel_calloc ovel_realloc ovel_free
        "ovel::semaphore::acquire()" "ovel::semaphore::try_acquire()" "ovel::semaphore::release()"
        "typeinfo for ovel::thread_function" "vtable for ovel::thread_function")
    if(NOT name IN_LIST defined)
        string(APPEND faults "  missing: ${name}\n")
    endif()
endforeach()

foreach(name IN LISTS undefined)
    if(name MATCHES "^operator (new|delete)")
        string(APPEND faults "  not the library's own: ${name}\n")
    endif()
endforeach()

if(faults)
    message(FATAL_ERROR "The dynamic symbols of ${LIBRARY}:\n${faults}")
endif()
