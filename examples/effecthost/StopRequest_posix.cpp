#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "StopRequest.h"

namespace EffectHost {

namespace {

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free);  // signal handlers may use it

void RequestStop(int) {
    stopRequested = true;
}

void WaitForEndOfInput() {
    char buffer[64];
    ssize_t count;
    do {
        count = read(STDIN_FILENO, buffer, sizeof(buffer));
    } while (count > 0 || (count < 0 && errno == EINTR));
    stopRequested = true;
}

}  // namespace

void StopOnSignals() {
    struct sigaction action {};
    action.sa_handler = RequestStop;
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM}) {
        sigaction(signal, &action, nullptr);
    }
}

// The thread may still be reading when the program ends, so it uses only objects that outlive it.
void StopAtEndOfInput() {
    std::thread(WaitForEndOfInput).detach();
}

bool StopRequested() {
    return stopRequested;
}

}  // namespace EffectHost
