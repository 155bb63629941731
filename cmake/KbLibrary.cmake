# kb_add_library(<name> DEPENDS <public deps...> PRIVATE_DEPENDS <private deps...>)
# One static library per source folder; every .cpp/.h of the folder belongs to it.
function(kb_add_library name)
    cmake_parse_arguments(ARG "" "" "DEPENDS;PRIVATE_DEPENDS" ${ARGN})
    file(GLOB _sources CONFIGURE_DEPENDS
        ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    list(FILTER _sources INCLUDE REGEX "\\.cpp$")
    if(NOT _sources)
        # Header-only so far.
        add_library(${name} INTERFACE)
        target_include_directories(${name} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/..)
        target_link_libraries(${name} INTERFACE ${ARG_DEPENDS})
        return()
    endif()
    file(GLOB _headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
    add_library(${name} STATIC ${_sources} ${_headers})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/..)
    target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
endfunction()
