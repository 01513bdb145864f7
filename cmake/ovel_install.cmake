# What is installed and packed, in four components: runtime (the library),
# development (headers and what finds them), tools and documentation.
include(CMakePackageConfigHelpers)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/ovel)
install(TARGETS ovel EXPORT ovel
    RUNTIME COMPONENT runtime
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
install(FILES ${ovel_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ovel COMPONENT development)
# The exported target needs nothing found before it, so it is the whole package.
install(EXPORT ovel NAMESPACE ovel:: FILE ovelConfig.cmake DESTINATION ${package}
    COMPONENT development)
write_basic_package_version_file(ovelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ovelConfigVersion.cmake DESTINATION ${package}
    COMPONENT development)

# gdb looks for printers under the path of the library's own file.
if(NOT WIN32)
    cmake_path(GET CMAKE_INSTALL_FULL_LIBDIR RELATIVE_PART library_folder)
    install(FILES tools/gdb/ovel_gdb.py
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load/${library_folder}
        RENAME $<TARGET_FILE_NAME:ovel>-gdb.py COMPONENT development)
endif()

# Paths relative to where the file lies: an installed tree can be moved.
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_prefix
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/ovel.pc.in ovel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ovel.pc DESTINATION ${pkgconfig} COMPONENT development)

if(TARGET ovel-net)
    if(NOT WIN32)
        file(RELATIVE_PATH library_from_tool
            ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
        set_target_properties(ovel-net PROPERTIES INSTALL_RPATH $ORIGIN/${library_from_tool})
    endif()
    install(TARGETS ovel-net COMPONENT tools)
    install(FILES tools/ovel-net.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    install(DIRECTORY nets/ DESTINATION ${CMAKE_INSTALL_DATADIR}/ovel/nets COMPONENT tools
        USE_SOURCE_PERMISSIONS)
endif()

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.cpp")

# Debian packages by component, the documentation with what is documented, and one
# tarball of everything.
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_NAME ovel)
set(CPACK_PACKAGE_VENDOR ovel)
set(CPACK_PACKAGE_CONTACT "ovel developers <ovel@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Locks, memory, threads and Petri nets for C++")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libovel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libovel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ovel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION science)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS graphviz)
include(CPack)
cpack_add_component_group(runtime DESCRIPTION "The shared library")
cpack_add_component_group(development DESCRIPTION "Headers, documentation and examples")
cpack_add_component_group(tools DESCRIPTION "ovel-net, which runs Petri nets, and nets for it")
cpack_add_component(runtime GROUP runtime)
cpack_add_component(development GROUP development DEPENDS runtime)
cpack_add_component(documentation GROUP development)
cpack_add_component(tools GROUP tools DEPENDS runtime)
