# Runs PROGRAM, which must succeed and print the contents of the file EXPECTED.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${PROGRAM} OUTPUT_VARIABLE output RESULT_VARIABLE status)
file(READ ${EXPECTED} expected)
if(NOT status EQUAL 0 OR NOT output STREQUAL expected)
    message(FATAL_ERROR "Status ${status}, and printed:\n${output}but the page says:\n${expected}")
endif()
