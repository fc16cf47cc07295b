#include "Start.h"

#include <stdlib.h>

#include <corecrt_startup.h>

extern "C" void __cdecl _initterm(_PVFV* first, _PVFV* last);

namespace {

// The linker sorts sections by the letters after the $. The sections that the compiler fills with
// constructors lie between these two.
[[gnu::section(".CRT$XCA"), gnu::used]] _PVFV first = nullptr;
[[gnu::section(".CRT$XCZ"), gnu::used]] _PVFV last = nullptr;

_onexit_table_t destructors;

}  // namespace

// The compiler registers the destructors of static objects here. The C library's own atexit would
// call them at the end of the process, when this image may already be unloaded.
extern "C" int __cdecl atexit(_PVFV destructor) {
    return ::_register_onexit_function(&destructors, reinterpret_cast<_onexit_t>(destructor));
}

void ConstructStaticObjects() {
    ::_initialize_onexit_table(&destructors);
    ::_initterm(&first, &last);
}

void DestroyStaticObjects() {
    ::_execute_onexit_table(&destructors);
}
