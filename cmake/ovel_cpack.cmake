# Read by CPack for each kind of package.

# Debian packages leave the symbols to packages of their own.
set(CPACK_STRIP_FILES ON)
if(CPACK_GENERATOR STREQUAL "DEB")
    set(CPACK_STRIP_FILES OFF)
endif()

# For what CPack and the tools that it calls date themselves.
set(ENV{SOURCE_DATE_EPOCH} ${CPACK_OVEL_RELEASED})
