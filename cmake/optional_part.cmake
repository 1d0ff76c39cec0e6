# dolm_optional_part(OPTION what [package debian-package]...): settles OPTION, which decides whether
# a part is built that needs more than a compiler. AUTO, the default at the top level, builds it if
# its packages are found and else says in one line what is missing; in another project the part is
# left out unless asked for.
function(dolm_optional_part option what)
    set(default OFF)
    if(PROJECT_IS_TOP_LEVEL)
        set(default AUTO)
    endif()
    set(${option} ${default} CACHE STRING "Build ${what}: ON, OFF, or AUTO (if its packages are there)")
    set_property(CACHE ${option} PROPERTY STRINGS AUTO ON OFF)
    if(NOT ${option} STREQUAL AUTO)
        return()
    endif()

    set(missing "")
    set(needs ${ARGN})
    while(needs)
        list(POP_FRONT needs package debian_package)
        find_package(${package} QUIET)
        if(NOT ${package}_FOUND)
            list(APPEND missing ${debian_package})
        endif()
    endwhile()
    if(missing)
        list(JOIN missing ", " missing)
        message(STATUS "Left out: ${what}. Debian has what it needs in ${missing}; "
            "${option}=OFF leaves it out without this line")
        set(${option} OFF PARENT_SCOPE)
    else()
        set(${option} ON PARENT_SCOPE)
    endif()
endfunction()
