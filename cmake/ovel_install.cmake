# What to install, in four components: runtime (the library), development (headers,
# files that help find them, and the sanitizer variants), tools and documentation.
include(CMakePackageConfigHelpers)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/ovel)
install(TARGETS ovel EXPORT ovel_plain
    RUNTIME COMPONENT runtime
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
install(EXPORT ovel_plain NAMESPACE ovel:: DESTINATION ${package} COMPONENT development)
foreach(variant IN LISTS ovel_variants)
    install(TARGETS ovel_${variant} EXPORT ovel_${variant}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/ovel/${variant} COMPONENT development)
    install(EXPORT ovel_${variant} NAMESPACE ovel:: DESTINATION ${package} COMPONENT development)
endforeach()
install(FILES ${ovel_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ovel COMPONENT development)

get_target_property(type ovel TYPE)
set(ovel_dependencies "")
set(pkgconfig_libraries "")
if(type STREQUAL "STATIC_LIBRARY")
    set(ovel_dependencies "include(CMakeFindDependencyMacro)\nfind_dependency(Threads)")
    set(pkgconfig_libraries " -pthread -Wl,-z,nodelete")
endif()
configure_file(cmake/ovelConfig.cmake.in ovelConfig.cmake @ONLY)
write_basic_package_version_file(ovelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ovelConfig.cmake ${PROJECT_BINARY_DIR}/ovelConfigVersion.cmake
    DESTINATION ${package} COMPONENT development)

# Paths are relative to the file's location, so an installed tree can be moved.
set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pkgconfig_prefix
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/ovel.pc.in ovel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ovel.pc DESTINATION ${pkgconfig} COMPONENT development)
foreach(variant IN LISTS ovel_variants)
    set(pkgconfig_variant /ovel/${variant})
    configure_file(cmake/ovel.pc.in ovel_${variant}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/ovel_${variant}.pc DESTINATION ${pkgconfig}
        COMPONENT development)
endforeach()

# gdb loads the printers next to the library if the user has declared that folder
# safe. Under /usr it has a separate folder for them, which is always safe; a file
# next to the library would keep gdb from looking there.
if(type STREQUAL "SHARED_LIBRARY" AND NOT WIN32)
    set(libraries ${CMAKE_INSTALL_LIBDIR})
    foreach(variant IN LISTS ovel_variants)
        list(APPEND libraries ${CMAKE_INSTALL_LIBDIR}/ovel/${variant})
    endforeach()
    foreach(library IN LISTS libraries)
        string(CONFIGURE [[
            set(folder @library@)
            if("${CMAKE_INSTALL_PREFIX}" MATCHES "(^|/)usr$")
                set(folder @CMAKE_INSTALL_DATADIR@/gdb/auto-load/usr/@library@)
            endif()
            file(INSTALL "@PROJECT_SOURCE_DIR@/tools/gdb/ovel_gdb.py" TYPE FILE
                DESTINATION "${CMAKE_INSTALL_PREFIX}/${folder}"
                RENAME libovel.so.@PROJECT_VERSION@-gdb.py)
        ]] code @ONLY)
        install(CODE ${code} COMPONENT development)
    endforeach()
endif()

find_program(OVEL_GZIP gzip)
mark_as_advanced(OVEL_GZIP)

# Installs `source` in `folder` as `name`.gz, without a name or time inside.
function(ovel_install_compressed source folder name component)
    set(compressed ${PROJECT_BINARY_DIR}/${component}/${name}.gz)
    add_custom_command(OUTPUT ${compressed} VERBATIM
        COMMAND ${CMAKE_COMMAND} -E copy ${source} ${PROJECT_BINARY_DIR}/${component}/${name}
        COMMAND ${OVEL_GZIP} -9nf ${PROJECT_BINARY_DIR}/${component}/${name}
        DEPENDS ${source})
    add_custom_target(ovel_${component}_${name} ALL DEPENDS ${compressed})
    install(FILES ${compressed} DESTINATION ${folder} COMPONENT ${component})
endfunction()

if(TARGET ovel-net)
    if(type STREQUAL "SHARED_LIBRARY" AND NOT WIN32)
        file(RELATIVE_PATH library_from_tool
            ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
        # The linker would include the build path in what it signs.
        set_target_properties(ovel-net PROPERTIES
            BUILD_RPATH_USE_ORIGIN ON
            INSTALL_RPATH $ORIGIN/${library_from_tool})
    endif()
    install(TARGETS ovel-net COMPONENT tools)
    if(OVEL_GZIP)
        ovel_install_compressed(${PROJECT_SOURCE_DIR}/tools/ovel-net.1
            ${CMAKE_INSTALL_MANDIR}/man1 ovel-net.1 tools)
    else()
        install(FILES tools/ovel-net.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    endif()
    install(DIRECTORY nets/ DESTINATION ${CMAKE_INSTALL_DATADIR}/ovel/nets COMPONENT tools
        USE_SOURCE_PERMISSIONS)
endif()

if(OVEL_DURABLE)
    include(cmake/ovel_durable_install.cmake)
endif()

install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md LICENSE
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.cpp")

if(NOT WIN32)
    include(cmake/ovel_package.cmake)
endif()
