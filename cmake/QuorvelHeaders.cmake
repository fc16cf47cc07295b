# Header-only libraries of the distribution, for programs other than the library itself.
#
# quorvel_header_library(NAME HEADER DEBIAN_PACKAGE OPTION): an interface library for a header such as
# CLI/CLI.hpp, which is needed if the option is on. Only that header's own folder, or a header without a
# folder, is visible, through a link in the build tree, so that a cross-build takes these headers from the
# build machine and no others.
function(quorvel_header_library name header package option)
    if(TARGET ${name})
        return()
    endif()
    string(REGEX REPLACE "/.*" "" linked ${header})
    find_path(${name}_INCLUDE_DIR ${header} NO_CMAKE_FIND_ROOT_PATH HINTS /usr/include)
    mark_as_advanced(${name}_INCLUDE_DIR)
    if(NOT ${name}_INCLUDE_DIR)
        message(FATAL_ERROR "${header} is missing (Debian: ${package}). -D${option}=OFF builds without it")
    endif()
    set(links ${CMAKE_BINARY_DIR}/headers/${name})
    file(MAKE_DIRECTORY ${links})
    file(CREATE_LINK ${${name}_INCLUDE_DIR}/${linked} ${links}/${linked} COPY_ON_ERROR SYMBOLIC)
    add_library(${name} INTERFACE IMPORTED GLOBAL)
    target_include_directories(${name} SYSTEM INTERFACE ${links})
endfunction()
