# GDB must print the objects of PROGRAM as in the file `expected`. It loads the printers from
# below SAFE.
cmake_minimum_required(VERSION 3.25)

execute_process(
    COMMAND ${GDB} -nx -batch -iex "set auto-load safe-path ${SAFE}"
        -x ${CMAKE_CURRENT_LIST_DIR}/commands.gdb ${PROGRAM}
    OUTPUT_VARIABLE output ERROR_VARIABLE errors)
string(REGEX MATCHALL "\n[$][0-9]+ = [^\n]*" printed "${output}")
list(TRANSFORM printed REPLACE "^\n[$][0-9]+ = " "")
list(JOIN printed "\n" printed)
file(READ ${CMAKE_CURRENT_LIST_DIR}/expected expected)
if(NOT "${printed}\n" STREQUAL expected)
    message(FATAL_ERROR "Printed:\n${printed}\nexpected:\n${expected}\nall of it:\n${output}${errors}")
endif()
