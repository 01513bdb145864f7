# Whether durable/ is built: if libpq and sqlite3 are there for this target. A build for
# another word size than the machine's would find libraries that do not fit it. Beside a
# static library, a program would have the library twice.
get_target_property(type ovel TYPE)
set(found OFF)
if(NOT WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 8 AND NOT type STREQUAL "STATIC_LIBRARY")
    find_path(OVEL_LIBPQ_INCLUDE libpq-fe.h PATH_SUFFIXES postgresql DOC "Where libpq-fe.h is")
    find_library(OVEL_LIBPQ_LIBRARY pq DOC "libpq, PostgreSQL's client library")
    find_path(OVEL_SQLITE_INCLUDE sqlite3.h DOC "Where sqlite3.h is")
    find_library(OVEL_SQLITE_LIBRARY sqlite3 DOC "SQLite's library")
    if(OVEL_LIBPQ_INCLUDE AND OVEL_LIBPQ_LIBRARY AND OVEL_SQLITE_INCLUDE AND OVEL_SQLITE_LIBRARY)
        set(found ON)
    endif()
endif()
set(default OFF)
if(found AND PROJECT_IS_TOP_LEVEL)
    set(default ON)
endif()
option(OVEL_DURABLE "Build durable nets, which need libpq and sqlite3" ${default})
if(OVEL_DURABLE AND NOT found)
    message(FATAL_ERROR "OVEL_DURABLE needs a shared library of 64 bits, libpq and sqlite3: install "
        "Debian's packages libpq-dev and libsqlite3-dev")
endif()
