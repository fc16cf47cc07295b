#include <stdlib.h>

#include <corecrt_startup.h>

#include "Start.h"

int main(int argc, char** argv);

extern "C" {

int __cdecl _configure_narrow_argv(int mode);

// The system starts a program here.
void mainCRTStartup() {
    constexpr int kWithoutWildcards = 1;
    ::_configure_narrow_argv(kWithoutWildcards);
    ConstructStaticObjects();
    ::_crt_atexit(&DestroyStaticObjects);
    ::exit(main(__argc, __argv));
}
}
