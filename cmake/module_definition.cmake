# The module definition of the DLL: the symbols of the exported surface, and nothing else. Those that
# hosts of other systems can replace are data, but for the functions of the two devices.
set(DOLM_MODULE_DEFINITION ${PROJECT_BINARY_DIR}/DolmStorageLib.def)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
    cmake/exported_symbols.txt cmake/DolmStorageLib.dynamic)
file(STRINGS cmake/exported_symbols.txt symbols)
file(STRINGS cmake/DolmStorageLib.dynamic data REGEX "^ +[A-Za-z_]+[^ ]*;$")
list(TRANSFORM data REPLACE "^ +(.*);$" "\\1")
list(FILTER data EXCLUDE REGEX "^(SpiDrv|EFS_physical_)")
set(definition "EXPORTS\n")
foreach(symbol IN LISTS symbols)
    if(symbol IN_LIST data)
        string(APPEND symbol " DATA")
    endif()
    string(APPEND definition "    ${symbol}\n")
endforeach()
file(CONFIGURE OUTPUT ${DOLM_MODULE_DEFINITION} CONTENT "${definition}" @ONLY)
