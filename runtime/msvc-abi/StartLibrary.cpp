#include <windows.h>

#include "Start.h"

// Where the system tells a library what happens to it. Nothing happens to this one but that it is
// loaded and leaves.
extern "C" BOOL WINAPI _DllMainCRTStartup(HINSTANCE /*library*/, DWORD reason, void* /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        ConstructStaticObjects();
    } else if (reason == DLL_PROCESS_DETACH) {
        DestroyStaticObjects();
    }
    return TRUE;
}
