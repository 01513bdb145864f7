# CPack reads this file for each kind of package.

# Debian packages put the symbols into separate packages.
set(CPACK_STRIP_FILES ON)
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_STRIP_FILES OFF)
endif()

# The date for CPack and the tools that it calls.
set(ENV{SOURCE_DATE_EPOCH} ${CPACK_OVEL_RELEASED})
