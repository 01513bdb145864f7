# An overlay port that builds the sources it lies in:
#
#     vcpkg install ovel --overlay-ports=packaging/vcpkg
vcpkg_check_linkage(ONLY_DYNAMIC_LIBRARY)
get_filename_component(sources "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

vcpkg_cmake_configure(
    SOURCE_PATH "${sources}"
    OPTIONS
        -DOVEL_TESTS=OFF
        -DOVEL_TOOLS=OFF
        -DOVEL_EXAMPLES=OFF
        -DOVEL_WERROR=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(CONFIG_PATH lib/cmake/ovel)
vcpkg_fixup_pkgconfig()

file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
vcpkg_install_copyright(FILE_LIST "${sources}/LICENSE")
