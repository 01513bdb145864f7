# Reads the names that LIBRARY exports with OBJDUMP. Fails on an unexpected and on a missing
# one. The plain functions have undecorated names, for C programs.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "Ordinal/Name Pointer. Table\n.*" table "${text}")
string(REGEX MATCHALL "\n\t.[ 0-9]+. [^\n]+" lines "${table}")
list(TRANSFORM lines REPLACE "^\n\t.[ 0-9]+. " "")
set(faults "")

# Functions and data of `ovel`, vtables and type information.
foreach(name IN LISTS lines)
    if(NOT name MATCHES "^_Z(N|NK|TVN|TIN|TSN)4ovel" AND NOT name MATCHES "^ovel_(malloc|calloc|realloc|free)$")
        string(APPEND faults "  foreign: ${name}\n")
    endif()
endforeach()

foreach(name IN ITEMS ovel_malloc ovel_calloc ovel_realloc ovel_free
        _ZN4ovel9semaphore7acquireEv _ZN4ovel9semaphore11try_acquireEv
        _ZN4ovel9semaphore7releaseEv _ZN4ovel12default_spinE
        _ZTVN4ovel15thread_functionE _ZTIN4ovel15thread_functionE)
    if(NOT name IN_LIST lines)
        string(APPEND faults "  missing: ${name}\n")
    endif()
endforeach()

if(faults)
    message(FATAL_ERROR "The names that ${LIBRARY} exports:\n${faults}")
endif()
