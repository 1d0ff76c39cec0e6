# Run by cpack on the files of the packages: adds what Debian wants in each of them, and compresses
# what it wants compressed.
execute_process(COMMAND date --rfc-email --utc --date ${CPACK_DOLM_RELEASE_DATE}
    OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} key)
    set(package ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
    set(usr ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr)
    set(documents ${usr}/share/doc/${package})
    file(COPY ${CPACK_DOLM_SOURCE_DIR}/cmake/debian/copyright
        ${CPACK_DOLM_SOURCE_DIR}/CHANGELOG.md DESTINATION ${documents})
    file(WRITE ${documents}/changelog
        "${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n"
        "  * Release; CHANGELOG.md beside this file tells what it brings.\n\n"
        " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
    file(GLOB manuals ${usr}/share/man/man*/*)
    execute_process(COMMAND gzip --best --no-name
        ${documents}/changelog ${documents}/CHANGELOG.md ${manuals}
        COMMAND_ERROR_IS_FATAL ANY)
endforeach()
