# What is installed of durable nets, in two components of their own: durable (the library)
# and durable_development.
if(type STREQUAL "SHARED_LIBRARY")
    set_target_properties(ovel_durable PROPERTIES
        BUILD_RPATH_USE_ORIGIN ON  # as for ovel-net
        INSTALL_RPATH $ORIGIN)
endif()
install(TARGETS ovel_durable EXPORT ovel_durable_targets
    LIBRARY COMPONENT durable NAMELINK_COMPONENT durable_development)
install(EXPORT ovel_durable_targets NAMESPACE ovel:: FILE ovel_durable_targets.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ovel_durable COMPONENT durable_development)
file(GLOB durable_headers CONFIGURE_DEPENDS durable/includes/*.h)
install(FILES ${durable_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ovel
    COMPONENT durable_development)
file(CONFIGURE OUTPUT ovel_durableConfig.cmake @ONLY CONTENT
[[include(CMakeFindDependencyMacro)
find_dependency(ovel @PROJECT_VERSION@ EXACT)
include(${CMAKE_CURRENT_LIST_DIR}/ovel_durable_targets.cmake)
]])
write_basic_package_version_file(ovel_durableConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ovel_durableConfig.cmake
    ${PROJECT_BINARY_DIR}/ovel_durableConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ovel_durable COMPONENT durable_development)
file(CONFIGURE OUTPUT ovel_durable.pc @ONLY CONTENT
[[prefix=${pcfiledir}/@pkgconfig_prefix@
libdir=${prefix}/@CMAKE_INSTALL_LIBDIR@

Name: ovel_durable
Description: Petri nets in a database, for ovel
Version: @PROJECT_VERSION@
Requires: ovel = @PROJECT_VERSION@
Libs: -L${libdir} -lovel_durable
]])
install(FILES ${PROJECT_BINARY_DIR}/ovel_durable.pc DESTINATION ${pkgconfig}
    COMPONENT durable_development)
