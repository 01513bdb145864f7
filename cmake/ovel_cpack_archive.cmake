# Packs again what CPack packs with something of this machine in it.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(folder ${package}.unpacked)
    if(package MATCHES "[.]tar[.]gz$")
        # The order of its folders and its user's name: sorted by name and owned by root
        # instead.
        file(ARCHIVE_EXTRACT INPUT ${package} DESTINATION ${folder})
        file(GLOB content RELATIVE ${folder} ${folder}/*)
        execute_process(
            COMMAND tar --create --sort=name --owner=0 --group=0 --numeric-owner
                --mtime=@${CPACK_OVEL_RELEASED} --mode=u=rwX,go=rX --directory=${folder} ${content}
            COMMAND gzip -9n
            OUTPUT_FILE ${package} COMMAND_ERROR_IS_FATAL ANY)
    elseif(package MATCHES "[.]ddeb$")
        # Checksums of files with the absolute path of the build: with the path in the
        # package instead.
        execute_process(COMMAND dpkg-deb --raw-extract ${package} ${folder}
            COMMAND_ERROR_IS_FATAL ANY)
        execute_process(COMMAND sed --in-place "s|  /.*/usr/|  usr/|" ${folder}/DEBIAN/md5sums
            COMMAND_ERROR_IS_FATAL ANY)
        execute_process(
            COMMAND ${CMAKE_COMMAND} -E env SOURCE_DATE_EPOCH=${CPACK_OVEL_RELEASED}
                dpkg-deb --root-owner-group -Zgzip --build ${folder} ${package}
            OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    endif()
    file(REMOVE_RECURSE ${folder})
endforeach()
