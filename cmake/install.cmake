# What cmake --install puts down: the library, its headers in a folder of their own, the program, a
# CMake package and a pkg-config file.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(DOLM_HEADER_DIR ${CMAKE_INSTALL_INCLUDEDIR}/DolmStorageLib)
set(DOLM_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/DolmStorageLib)

target_include_directories(DolmStorageLib INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${DOLM_HEADER_DIR}>)
install(TARGETS DolmStorageLib EXPORT DolmStorageLibTargets)
install(DIRECTORY include/ DESTINATION ${DOLM_HEADER_DIR} FILES_MATCHING PATTERN *.h)
install(EXPORT DolmStorageLibTargets NAMESPACE DolmStorageLib:: DESTINATION ${DOLM_PACKAGE_DIR})

configure_package_config_file(cmake/DolmStorageLibConfig.cmake.in DolmStorageLibConfig.cmake
    INSTALL_DESTINATION ${DOLM_PACKAGE_DIR})
write_basic_package_version_file(DolmStorageLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/DolmStorageLibConfig.cmake
    ${PROJECT_BINARY_DIR}/DolmStorageLibConfigVersion.cmake
    DESTINATION ${DOLM_PACKAGE_DIR})

file(RELATIVE_PATH DOLM_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/DolmStorageLib.pc.in DolmStorageLib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/DolmStorageLib.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(TARGET dolm)
    install(TARGETS dolm)
    install(FILES docs/dolm.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
