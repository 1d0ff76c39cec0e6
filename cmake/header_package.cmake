# dolm_header_package(PACKAGE TARGET FOLDER): finds a package that is headers alone, in a folder of
# that name. A build for another system takes them by a link out of a folder of their own, since
# beside them may lie what is for this system alone.
function(dolm_header_package package target folder)
    find_package(${package} REQUIRED)
    if(NOT CMAKE_CROSSCOMPILING)
        return()
    endif()
    set(own ${PROJECT_BINARY_DIR}/headers)
    get_target_property(found ${target} INTERFACE_INCLUDE_DIRECTORIES)
    list(GET found 0 found)
    if(NOT EXISTS ${own}/${folder})
        file(MAKE_DIRECTORY ${own})
        file(CREATE_LINK ${found}/${folder} ${own}/${folder} SYMBOLIC)
    endif()
    set_target_properties(${target} PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${own})
endfunction()
