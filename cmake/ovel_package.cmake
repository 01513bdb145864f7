# Debian packages by component, with separate packages for debug symbols and the
# documentation in the package that it describes, and one tarball of everything.
# Each has a file with its SHA-256 sum next to it.
set(OVEL_MAINTAINER "ovel developers <ovel@example.org>" CACHE STRING
    "Maintainer of the packages, as the distributor is known to the users")

# Everything in the packages has the date of the release in the changelog, so every
# build gives the same packages.
file(STRINGS CHANGELOG.md released REGEX "^## \\[${PROJECT_VERSION}\\] - ")
string(REGEX REPLACE "^.* - " "" released "${released}")
execute_process(COMMAND date --utc --date ${released} +%s
    OUTPUT_VARIABLE released OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND date --utc --date @${released} --rfc-email
    OUTPUT_VARIABLE released_text OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME ovel)
set(CPACK_PACKAGE_VENDOR ovel)
set(CPACK_PACKAGE_CONTACT ${OVEL_MAINTAINER})
set(summary "Locks, memory, threads and Petri nets for C++")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/ovel_cpack.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/ovel_cpack_content.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/ovel_cpack_archive.cmake)
set(CPACK_OVEL_RELEASED ${released})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libovel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
file(CONFIGURE OUTPUT packaging/shlibs CONTENT
    "libovel @PROJECT_VERSION_MAJOR@ libovel@PROJECT_VERSION_MAJOR@ (>= @PROJECT_VERSION@)\n" @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/packaging/shlibs
    ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "${summary} (shared library)
Semaphores, mutexes, conditions and barriers that spin before they sleep, an
allocator for each thread, pooled threads, groups of threads that schedule work
within a budget, and concurrent Petri nets.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libovel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "${summary} (development files)
Headers, files for CMake and pkg-config, variants of the library for programs
built with ThreadSanitizer or AddressSanitizer, printers for gdb, guides and
examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ovel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION science)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS graphviz)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Concurrent Petri nets on the command line
ovel-net reads place/transition nets in PNML, fires them concurrently, and
tells where they came to rest and why. It finds what stays the same in a net
and what keeps its transitions from firing, draws it, and shows a run on a
page for a browser. Some nets to start from come with it.")

if(OVEL_DURABLE)
    set(CPACK_DEBIAN_DURABLE_PACKAGE_NAME libovel-durable${PROJECT_VERSION_MAJOR})
    set(CPACK_DEBIAN_DURABLE_PACKAGE_SECTION libs)
    file(CONFIGURE OUTPUT packaging/durable/shlibs @ONLY CONTENT
"libovel_durable @PROJECT_VERSION_MAJOR@ libovel-durable@PROJECT_VERSION_MAJOR@ (>= @PROJECT_VERSION@)\n")
    set(CPACK_DEBIAN_DURABLE_PACKAGE_CONTROL_EXTRA
        ${PROJECT_BINARY_DIR}/packaging/durable/shlibs
        ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
    set(CPACK_DEBIAN_DURABLE_DESCRIPTION "Petri nets in a database (shared library)
Nets whose firings are transactions of PostgreSQL or SQLite: they outlive their
processes and span machines. ovel-net loads it for its option --store.")
    set(CPACK_DEBIAN_DURABLE_DEVELOPMENT_PACKAGE_NAME libovel-durable-dev)
    set(CPACK_DEBIAN_DURABLE_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DURABLE_DEVELOPMENT_DESCRIPTION "Petri nets in a database (development files)
Headers, and files for CMake and pkg-config.")
    set(durable_components durable durable_development)
endif()

# The files that each Debian package must have in its documentation folder.
foreach(component IN ITEMS runtime development tools ${durable_components})
    string(TOUPPER ${component} upper)
    if(OVEL_GZIP AND (NOT component STREQUAL "tools" OR TARGET ovel-net))
        set(documents ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
        install(FILES packaging/debian/copyright DESTINATION ${documents} COMPONENT ${component})
        configure_file(packaging/debian/changelog.in ${component}/changelog.in @ONLY)
        ovel_install_compressed(${PROJECT_BINARY_DIR}/${component}/changelog.in
            ${documents} changelog ${component})
    endif()
endforeach()

include(CPack)
cpack_add_component_group(runtime)
cpack_add_component_group(development)
cpack_add_component_group(tools)
cpack_add_component(runtime GROUP runtime)
cpack_add_component(development GROUP development DEPENDS runtime)
cpack_add_component(documentation GROUP development)
cpack_add_component(tools GROUP tools DEPENDS runtime)
if(OVEL_DURABLE)
    cpack_add_component_group(durable)
    cpack_add_component_group(durable_development)
    cpack_add_component(durable GROUP durable DEPENDS runtime)
    cpack_add_component(durable_development GROUP durable_development
        DEPENDS durable development)
endif()
