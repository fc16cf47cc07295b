# Options and the compile settings that every target of this tree shares.
set(build_tools ${PROJECT_IS_TOP_LEVEL})
if(MSVC)
    # The program needs libraries of a Linux distribution.
    set(build_tools OFF)
endif()
if(PROJECT_IS_TOP_LEVEL)
    option(BUILD_SHARED_LIBS "Build shared libraries; OFF builds static ones" ON)
endif()
option(QUORVEL_BUILD_TOOLS "Build the program quorvel" ${build_tools})
set(build_sharing ON)
if(WIN32)
    set(build_sharing OFF)  # hiredis 0.14 does not compile there
endif()
option(QUORVEL_BUILD_SHARING "Let the program quorvel share effects through Redis" ${build_sharing})
option(QUORVEL_BUILD_TESTS "Build the test programs" OFF)
option(QUORVEL_BUILD_EXAMPLES "Build the example host application" OFF)
option(QUORVEL_BUILD_BENCHMARKS "Build the benchmarks" OFF)
option(QUORVEL_BUILD_FUZZERS "Build the fuzzing harnesses (clang, preset fuzz)" OFF)
option(QUORVEL_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
option(QUORVEL_UNITY_BUILD "Compile many sources together, where they allow it" OFF)
option(QUORVEL_COVERAGE "Instrument for gcov" OFF)
set(QUORVEL_SANITIZERS "" CACHE STRING "Value for -fsanitize=, empty for none")
set(assertions OFF)
if(CMAKE_BUILD_TYPE STREQUAL Debug OR QUORVEL_SANITIZERS OR QUORVEL_BUILD_FUZZERS)
    set(assertions ON)
endif()
option(QUORVEL_ASSERTIONS "Check assertions in the library itself; the tests always do" ${assertions})
set(QUORVEL_HOST_LIBRARIES "" CACHE STRING
    "The host's own utility libraries to build against (targets, or absolute library paths with \
QUORVEL_HOST_INCLUDE_DIRS); empty uses the stand-ins under host/")
set(QUORVEL_HOST_INCLUDE_DIRS "" CACHE STRING
    "Include folders of the libraries in QUORVEL_HOST_LIBRARIES")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# Programs and DLLs go to one folder, so that a program finds the DLL beside itself.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

find_program(QUORVEL_CCACHE ccache)
if(QUORVEL_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # With precompiled headers, ccache must be told that the code does not use __TIME__. Objects of
    # one build folder serve others, too: what scripts/pack builds is a part of the preset release.
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
        CCACHE_SLOPPINESS=pch_defines,time_macros CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}
        CCACHE_NOHASHDIR=1 ${QUORVEL_CCACHE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
        add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
    elseif(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
        add_compile_options("$<$<COMPILE_LANGUAGE:CXX>:SHELL:-Xclang -fno-pch-timestamp>")
    endif()
endif()

# quorvel_build_settings: every target of this tree links it privately.
add_library(quorvel_build_settings INTERFACE)
if(MSVC)
    # Exported classes derive from host classes and contain records that are not exported.
    target_compile_options(quorvel_build_settings INTERFACE
        /W4 /wd4251 /wd4275 /permissive- /utf-8 $<$<BOOL:${QUORVEL_WARNINGS_AS_ERRORS}>:/WX>)
    target_compile_definitions(quorvel_build_settings INTERFACE _CRT_SECURE_NO_WARNINGS NOMINMAX)
else()
    target_compile_options(quorvel_build_settings INTERFACE
        -Wall -Wextra -Wpedantic -Wconversion -Wshadow
        $<$<BOOL:${QUORVEL_WARNINGS_AS_ERRORS}>:-Werror>)
endif()
if(QUORVEL_SANITIZERS)
    target_compile_options(quorvel_build_settings INTERFACE
        -fsanitize=${QUORVEL_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(quorvel_build_settings INTERFACE -fsanitize=${QUORVEL_SANITIZERS})
endif()
if(QUORVEL_COVERAGE)
    target_compile_options(quorvel_build_settings INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(quorvel_build_settings INTERFACE --coverage)
endif()

# quorvel_unity_build(TARGET): for targets whose sources spend most of the compiler's time in the same
# headers. No two of their sources may define the same name.
function(quorvel_unity_build target)
    set_target_properties(${target} PROPERTIES
        UNITY_BUILD ${QUORVEL_UNITY_BUILD} UNITY_BUILD_BATCH_SIZE 12)
    if(QUORVEL_UNITY_BUILD)
        # GCC takes the sources for headers, in which a class may not have an unnamed namespace's.
        target_compile_options(${target} PRIVATE
            $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage>)
    endif()
endfunction()

# <quorvel/Version.h>
configure_file(${PROJECT_SOURCE_DIR}/include/quorvel/Version.h.in
    ${PROJECT_BINARY_DIR}/include/quorvel/Version.h @ONLY)

# quorvel_version_resource(TARGET DESCRIPTION): what Windows shows in the properties of the file.
function(quorvel_version_resource target description)
    get_target_property(type ${target} TYPE)
    if(NOT WIN32 OR type STREQUAL STATIC_LIBRARY)
        return()
    endif()
    set(file_type 2)
    if(type STREQUAL EXECUTABLE)
        set(file_type 1)
    endif()
    string(REPLACE . , numbers ${PROJECT_VERSION})
    set(resource ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/Version_win32.rc.in ${resource} @ONLY)
    target_sources(${target} PRIVATE ${resource})
endfunction()

if(WIN32)
    set(QUORVEL_PLATFORM win32)
else()
    set(QUORVEL_PLATFORM posix)
endif()

# The compiler's runtime DLLs lie beside the programs that need them, as on the host's machine.
if(MINGW)
    foreach(runtime libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${runtime}
                        OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        configure_file(${path} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${runtime} COPYONLY)
        list(APPEND QUORVEL_RUNTIME_DLLS ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${runtime})
    endforeach()
endif()
