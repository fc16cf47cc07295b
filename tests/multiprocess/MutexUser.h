#pragma once

#include <cstdint>
#include <future>
#include <string>

#include "quorvel/MutexObject.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

// Another process, which has a mutex open and uses it on request.
class MutexUser {
public:
    explicit MutexUser(const std::string& name);
    MutexUser(const MutexUser&) = delete;
    MutexUser& operator=(const MutexUser&) = delete;
    ~MutexUser() { process_.Wait(); }

    std::uint32_t Acquire(std::uint32_t timeout = 0);
    void Release();
    void Kill() { process_.Kill(); }

    // True if the mutex has no owner. Does not keep the mutex.
    bool FindsItFree();

private:
    ChildProcess process_;
};

// Runs a function on a new thread, waits for the thread's end, and returns the function's result.
template <typename Function>
auto OnAnotherThread(const Function& function) {
    return std::async(std::launch::async, function).get();
}

// Acquires a mutex, without waiting, on a thread that ends without releasing it.
inline void AbandonOnAnotherThread(MutexObject& mutex) {
    OnAnotherThread([&] { return mutex.Acquire(0); });
}

}  // namespace Quorvel::Testing
