# Cross-builds for 64-bit Windows with the C++ ABI of Microsoft's compiler and runs the programs
# under Wine. No part of Microsoft's SDK is needed. The compiler is clang, the C++ headers are those
# of libc++, and the headers and import libraries of the C library and the system are those of
# mingw-w64. The rest of the C++ runtime is vcruntime140.dll and runtime/msvc-abi/.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(QUORVEL_MSVC_ABI_RUNTIME ON)

set(QUORVEL_LLVM_ROOT /usr/lib/llvm-19 CACHE PATH "Folder of clang, lld and libc++")
set(QUORVEL_MINGW_ROOT /usr/x86_64-w64-mingw32 CACHE PATH "Folder of mingw-w64")
set(QUORVEL_VCRUNTIME_LIBRARY /usr/lib/x86_64-linux-gnu/wine/x86_64-windows/libvcruntime140.a
    CACHE FILEPATH "The import library of vcruntime140.dll (Debian: libwine-dev)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    QUORVEL_LLVM_ROOT QUORVEL_MINGW_ROOT QUORVEL_VCRUNTIME_LIBRARY)

set(CMAKE_CXX_COMPILER ${QUORVEL_LLVM_ROOT}/bin/clang++)
set(CMAKE_CXX_COMPILER_TARGET x86_64-pc-windows-msvc)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_RC_COMPILER_INIT ${CMAKE_RC_COMPILER})  # otherwise CMake passes llvm-rc's options
set(CMAKE_RC_FLAGS "-O res")  # lld-link adds the manifest only to resources in this format

# mingw-w64's headers need the macros of their own compiler. libc++'s headers check the same macros,
# so they must be told that the C++ ABI is Microsoft's.
set(flags
    -fno-ms-compatibility -fms-extensions -fgnuc-version=4.2.1
    -D__MINGW32__ -D__MINGW64__ -D_UCRT -D__MSVCRT_VERSION__=0xE00 -D__CRT__NO_INLINE
    -D_LIBCPP_ABI_FORCE_MICROSOFT -D_LIBCPP_ABI_VCRUNTIME -D_LIBCPP_NO_AUTO_LINK
    -nostdlibinc -isystem ${QUORVEL_LLVM_ROOT}/include/c++/v1
    -idirafter ${CMAKE_CURRENT_LIST_DIR}/../runtime/msvc-abi/include
    -idirafter ${QUORVEL_MINGW_ROOT}/include)
list(JOIN flags " " CMAKE_CXX_FLAGS_INIT)
set(CMAKE_MSVC_RUNTIME_LIBRARY "")

set(libraries ${QUORVEL_VCRUNTIME_LIBRARY})
foreach(library ucrt kernel32)
    list(APPEND libraries ${QUORVEL_MINGW_ROOT}/lib/lib${library}.a)
endforeach()
list(JOIN libraries " " libraries)
set(CMAKE_CXX_STANDARD_LIBRARIES "${libraries}" CACHE STRING "Linked to everything")

# Programs and libraries name their symbol file without its folder and contain a hash of their
# content instead of the time. mingw-w64's objects have sections with a different kind of symbol.
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-Xlinker /opt:ref -Xlinker /pdbaltpath:%_PDB% -Xlinker /Brepro -Xlinker /ignore:longsections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT}")

# Linking a program needs the runtime, which is compiled with the project.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CXX_COMPILER_WORKS ON)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-under-wine)
