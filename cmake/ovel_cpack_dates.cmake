# Gives everything in a package the date of the release.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY}
        -exec touch --no-dereference --date @${CPACK_OVEL_RELEASED} {} +
    COMMAND_ERROR_IS_FATAL ANY)
