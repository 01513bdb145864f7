# Gives everything in a package the date of the release, and permissions that do not
# depend on the umask that the sources were fetched with.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY}
        -exec touch --no-dereference --date @${CPACK_OVEL_RELEASED} {} +
    COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND chmod --recursive u=rwX,go=rX ${CPACK_TEMPORARY_DIRECTORY}
    COMMAND_ERROR_IS_FATAL ANY)
