# What cmake --install puts down: the library in both forms, its headers in a folder of their own,
# the program, a CMake package and a pkg-config file. The components are those of the packages.
include(CMakePackageConfigHelpers)

set(DOLM_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/DolmStorageLib)

install(TARGETS DolmStorageLib dolm_static EXPORT DolmStorageLibTargets
    LIBRARY COMPONENT library NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development
    RUNTIME COMPONENT library)
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
install(DIRECTORY include/ DESTINATION ${DOLM_HEADER_DIR} FILES_MATCHING PATTERN *.h PATTERN *.hpp)
install(EXPORT DolmStorageLibTargets NAMESPACE DolmStorageLib:: DESTINATION ${DOLM_PACKAGE_DIR})

configure_package_config_file(cmake/DolmStorageLibConfig.cmake.in DolmStorageLibConfig.cmake
    INSTALL_DESTINATION ${DOLM_PACKAGE_DIR})
write_basic_package_version_file(DolmStorageLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/DolmStorageLibConfig.cmake
    ${PROJECT_BINARY_DIR}/DolmStorageLibConfigVersion.cmake
    DESTINATION ${DOLM_PACKAGE_DIR})

file(RELATIVE_PATH DOLM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
# What a C program must name beside the static library: the C++ run time.
set(run_time ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(REMOVE_ITEM run_time ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})
list(TRANSFORM run_time PREPEND -l)
list(JOIN run_time " " DOLM_PC_RUN_TIME)
configure_file(cmake/DolmStorageLib.pc.in DolmStorageLib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/DolmStorageLib.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Where Debian's Python looks; the module finds the library in the folders above.
set(DOLM_PYTHON_DIR lib/python3/dist-packages CACHE STRING "Folder for the Python module")
install(DIRECTORY python/dolmstorage DESTINATION ${DOLM_PYTHON_DIR} COMPONENT python
    FILES_MATCHING PATTERN *.py PATTERN py.typed PATTERN __pycache__ EXCLUDE)

if(TARGET dolm)
    install(TARGETS dolm COMPONENT program)
    install(FILES docs/dolm.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
    if(NOT CMAKE_CROSSCOMPILING)
        # Each where its shell looks: zsh leaves the folder of packages apart from that of others.
        set(data ${CMAKE_INSTALL_DATADIR})
        set(zsh_folder zsh/site-functions)
        if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
            set(zsh_folder zsh/vendor-completions)
        endif()
        set(completions ${PROJECT_BINARY_DIR}/host/completions)
        install(FILES ${completions}.bash COMPONENT program
            DESTINATION ${data}/bash-completion/completions RENAME dolm)
        install(FILES ${completions}.zsh COMPONENT program
            DESTINATION ${data}/${zsh_folder} RENAME _dolm)
        install(FILES ${completions}.fish COMPONENT program
            DESTINATION ${data}/fish/vendor_completions.d RENAME dolm.fish)
    endif()
endif()
