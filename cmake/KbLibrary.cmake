# kb_add_library(<name> SOURCES <files...> DEPENDS <public deps...> PRIVATE_DEPENDS <private deps...>)
# One static library per source folder, with its files listed by hand so that a stray file never
# slips into the build.
function(kb_add_library name)
    cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
    if(NOT ARG_SOURCES)
        message(FATAL_ERROR "kb_add_library(${name}): no SOURCES")
    endif()
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/..)
    target_link_libraries(${name} PUBLIC ${ARG_DEPENDS} PRIVATE ${ARG_PRIVATE_DEPENDS})
endfunction()
