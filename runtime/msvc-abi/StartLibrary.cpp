#include <windows.h>

#include "Start.h"

// The system calls this to notify the library of events. Only loading and unloading matter here.
extern "C" BOOL WINAPI _DllMainCRTStartup(HINSTANCE /*library*/, DWORD reason, void* /*reserved*/) {
    if (reason == DLL_PROCESS_ATTACH) {
        ConstructStaticObjects();
    } else if (reason == DLL_PROCESS_DETACH) {
        DestroyStaticObjects();
    }
    return TRUE;
}
