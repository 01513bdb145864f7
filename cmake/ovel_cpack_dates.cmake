# Dates all that goes into a package as the release.
execute_process(COMMAND find ${CPACK_TEMPORARY_DIRECTORY}
        -exec touch --no-dereference --date @${CPACK_OVEL_RELEASED} {} +
    COMMAND_ERROR_IS_FATAL ANY)
