# Runs PROGRAM over FOLDER and compares each checksum with the one in a file made by
# gzip. The last eight bytes of that file are the CRC-32 and the size, lowest byte
# first.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${PROGRAM} ${FOLDER} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(compared 0)
foreach(line IN LISTS lines)
    if(NOT line MATCHES "^([0-9a-f]+) +([0-9]+)  (.*)$")
        message(FATAL_ERROR "not a line of checksums: ${line}")
    endif()
    set(checksum ${CMAKE_MATCH_1})
    set(file ${CMAKE_MATCH_3})
    execute_process(COMMAND gzip -1c ${file} COMMAND tail -c8 COMMAND od -An -tx4 -N4
        OUTPUT_VARIABLE expected OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    string(STRIP "${expected}" expected)
    if(NOT checksum STREQUAL expected)
        message(FATAL_ERROR "${file}: ${checksum}, but gzip has ${expected}")
    endif()
    math(EXPR compared "${compared} + 1")
endforeach()
file(GLOB files LIST_DIRECTORIES false ${FOLDER}/*)
list(LENGTH files there)
if(NOT compared EQUAL there)
    message(FATAL_ERROR "${compared} files of ${there}")
endif()
