# What cpack makes: a Debian package of each component, or for Windows an archive of them all,
# without a look at the clock, so that the same sources give the same bytes.
file(STRINGS CHANGELOG.md release REGEX "^## " LIMIT_COUNT 1)
if(NOT release MATCHES "^## ([0-9.]+) \\(([0-9-]+)\\)$" OR
   NOT CMAKE_MATCH_1 VERSION_EQUAL PROJECT_VERSION)
    message(FATAL_ERROR "CHANGELOG.md begins with another version than ${PROJECT_VERSION}: ${release}")
endif()
set(DOLM_RELEASE_DATE ${CMAKE_MATCH_2})
file(STRINGS python/dolmstorage/_version.py version REGEX "^VERSION")
if(NOT version STREQUAL "VERSION = \"${PROJECT_VERSION}\"")
    message(FATAL_ERROR "python/dolmstorage/_version.py has another version than ${PROJECT_VERSION}")
endif()

set(CPACK_PACKAGE_NAME dolmstoragelib)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/debian/time_of_release.cmake)
set(CPACK_DOLM_RELEASE_DATE ${DOLM_RELEASE_DATE})
if(WIN32)
    set(CPACK_GENERATOR ZIP)
    set(CPACK_SYSTEM_NAME windows-x86_64)
    include(CPack)
    return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The authors of DolmStorageLib <dolm@storage.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The program's dependency on the library is written down below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_COMPONENTS_ALL library development python)
set(library_package libdolmstoragelib${PROJECT_VERSION_MAJOR})

# dolm_package(COMPONENT NAME SECTION DEPENDS synopsis text): the package of a component.
macro(dolm_package component name section depends synopsis text)
    string(TOUPPER ${component} key)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${depends}")
    set(CPACK_DEBIAN_${key}_DESCRIPTION "${synopsis}\n${text}")
endmacro()
dolm_package(library ${library_package} libs ""
    "storage library of a firmware image tool"
    "Reads and writes the configuration variables that a firmware image
holds in its tables and in its two flash file stores, AFS and EFS.
It works on memory alone: a program hands it what it took out of an
image and takes back what has changed.")
dolm_package(development libdolmstoragelib-dev libdevel "${library_package} (= ${PROJECT_VERSION})"
    "storage library of a firmware image tool (development files)"
    "Headers for programs in C and in C++, the static library, and what
CMake and pkg-config need to find the library.")
dolm_package(python python3-dolmstorage python
    "python3:any (>= 3.9), ${library_package} (>= ${PROJECT_VERSION})"
    "storage library of a firmware image tool (Python 3)"
    "The values and flash files of a firmware image as mappings, over the
library, with the locks and the safe changes of several files that
dolm has.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/python/postinst ${PROJECT_SOURCE_DIR}/cmake/debian/python/prerm)
if(TARGET dolm)
    list(APPEND CPACK_COMPONENTS_ALL program)
    dolm_package(program dolm utils "${library_package} (= ${PROJECT_VERSION})"
        "build, read, change and check the storage inputs of a firmware image"
        "Builds such inputs from a manifest, lists, reads and changes their
values, shows what lies on a flash image and says what is wrong with
it. Made for shells and build scripts.")
endif()

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/documents.cmake)
set(CPACK_DOLM_SOURCE_DIR ${PROJECT_SOURCE_DIR})
include(CPack)
