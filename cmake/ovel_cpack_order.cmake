# CPack packs a tarball in the order of this machine's folders and with this user's
# name. This packs it again, sorted by name and owned by root.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    if(package MATCHES "[.]tar[.]gz$")
        set(folder ${package}.unpacked)
        file(ARCHIVE_EXTRACT INPUT ${package} DESTINATION ${folder})
        file(GLOB content RELATIVE ${folder} ${folder}/*)
        execute_process(
            COMMAND tar --create --sort=name --owner=0 --group=0 --numeric-owner
                --mtime=@${CPACK_OVEL_RELEASED} --mode=u=rwX,go=rX --directory=${folder} ${content}
            COMMAND gzip -9n
            OUTPUT_FILE ${package} COMMAND_ERROR_IS_FATAL ANY)
        file(REMOVE_RECURSE ${folder})
    endif()
endforeach()
