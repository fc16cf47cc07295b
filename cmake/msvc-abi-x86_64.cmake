# Cross-builds for 64-bit Windows with the C++ ABI of Microsoft's compiler, and runs what it built
# under Wine. No part of Microsoft's SDK is needed: the compiler is clang, the C++ library the headers
# of libc++, the C library and the system the headers and import libraries of mingw-w64, and what C++
# needs at run time beyond them are vcruntime140.dll and runtime/msvc-abi/.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(QUORVEL_MSVC_ABI_RUNTIME ON)

set(QUORVEL_LLVM_ROOT /usr/lib/llvm-19 CACHE PATH "Where clang, lld and libc++ stand")
set(QUORVEL_MINGW_ROOT /usr/x86_64-w64-mingw32 CACHE PATH "Where mingw-w64 stands")
set(QUORVEL_VCRUNTIME_LIBRARY /usr/lib/x86_64-linux-gnu/wine/x86_64-windows/libvcruntime140.a
    CACHE FILEPATH "The import library of vcruntime140.dll (Debian: libwine-dev)")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
    QUORVEL_LLVM_ROOT QUORVEL_MINGW_ROOT QUORVEL_VCRUNTIME_LIBRARY)

set(CMAKE_CXX_COMPILER ${QUORVEL_LLVM_ROOT}/bin/clang++)
set(CMAKE_CXX_COMPILER_TARGET x86_64-pc-windows-msvc)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# The headers of mingw-w64 want to be read as by their own compiler. libc++'s must be told that the
# C++ ABI is another one, since they go by the same macros.
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

# Programs and libraries name the file of their symbols without its folder, and carry a hash of their
# content in place of the time. mingw-w64's objects bring sections of another kind of symbols.
set(CMAKE_SHARED_LINKER_FLAGS_INIT
    "-Xlinker /opt:ref -Xlinker /pdbaltpath:%_PDB% -Xlinker /Brepro -Xlinker /ignore:longsections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT}")

# A linked program takes the runtime, which is compiled with the project.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_CXX_COMPILER_WORKS ON)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/run-under-wine)
