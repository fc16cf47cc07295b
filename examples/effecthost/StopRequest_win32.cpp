#include <windows.h>

#include <atomic>
#include <thread>

#include "StopRequest.h"

namespace EffectHost {

namespace {

std::atomic<bool> stopRequested{false};

// Events that are not handled here end the program.
BOOL WINAPI RequestStop(DWORD event) {
    const bool isInterrupt = event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT;
    return isInterrupt && !stopRequested.exchange(true);
}

void WaitForEndOfInput() {
    char buffer[64];
    DWORD count = 0;
    while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof(buffer), &count, nullptr) &&
           count > 0) {}
    stopRequested = true;
}

}  // namespace

void StopOnSignals() {
    SetConsoleCtrlHandler(RequestStop, TRUE);
}

// The thread may still be reading when the program ends, so it uses only objects that outlive it.
void StopAtEndOfInput() {
    std::thread(WaitForEndOfInput).detach();
}

bool StopRequested() {
    return stopRequested;
}

}  // namespace EffectHost
