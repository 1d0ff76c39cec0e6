# Read by cpack before anything else: all that it puts into a package is as old as the release.
execute_process(COMMAND date --utc --date ${CPACK_DOLM_RELEASE_DATE} +%s
    OUTPUT_VARIABLE seconds OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
set(ENV{SOURCE_DATE_EPOCH} ${seconds})
