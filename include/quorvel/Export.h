#pragma once

#if (defined(_MSVC_LANG) ? _MSVC_LANG : __cplusplus) < 201703L
#error "Quorvel's headers need C++17 or later: -std=c++17, with Microsoft's compiler /std:c++17"
#endif

// Strings, byte arrays and reference-counted objects cross the DLL boundary, so the host and the
// DLL must use the heap of the same C runtime. A DLL that was itself built with the debug runtime
// is the exception: its hosts define QUORVEL_DEBUG_RUNTIME, which its CMake package does for them.
#if defined(_MSC_VER) && defined(_DEBUG) && !defined(QUORVEL_DEBUG_RUNTIME) && \
    !defined(QUORVEL_STATIC) && !defined(QUORVEL_BUILDING_LIBRARY)
#error "quorvel.dll uses the release runtime: build with /MD, or use quorvel_c.dll (quorvel.h)"
#endif

// QUORVEL_API marks what the shared library exports. QUORVEL_BUILDING_LIBRARY is defined while the
// library itself is compiled, QUORVEL_STATIC where its objects are linked without a DLL.
//
// QUORVEL_ERROR marks the error classes. Their members need no export, but a host can catch them
// only if their type information is the same on both sides of the DLL boundary.
//
// QUORVEL_OVERLOADS declares two virtual operations of the same name so that the first gets the
// lower slot of the virtual table. Microsoft's ABI numbers overloads from the last declared to the
// first.
#if defined(_WIN32)
#if defined(QUORVEL_STATIC)
#define QUORVEL_API
#elif defined(QUORVEL_BUILDING_LIBRARY)
#define QUORVEL_API __declspec(dllexport)
#else
#define QUORVEL_API __declspec(dllimport)
#endif
#define QUORVEL_ERROR
#else
#define QUORVEL_API __attribute__((visibility("default")))
#define QUORVEL_ERROR __attribute__((visibility("default")))
#endif

#if defined(_MSC_VER)
#define QUORVEL_OVERLOADS(first, second) \
    second;                              \
    first
#else
#define QUORVEL_OVERLOADS(first, second) \
    first;                               \
    second
#endif
