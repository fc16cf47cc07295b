#pragma once

#include <cstdint>
#include <future>
#include <string>

#include "quorvel/MutexObject.h"
#include "support/ChildProcess.h"

namespace Quorvel::Testing {

// A process that has the mutex of a name open and uses it as it is told.
class MutexUser {
public:
    explicit MutexUser(const std::string& name);
    MutexUser(const MutexUser&) = delete;
    MutexUser& operator=(const MutexUser&) = delete;
    ~MutexUser() { process_.Wait(); }

    std::uint32_t Acquire(std::uint32_t timeout = 0);
    void Release();
    void Kill() { process_.Kill(); }

    // Whether nobody owns the mutex. Leaves it so.
    bool FindsItFree();

private:
    ChildProcess process_;
};

// Runs a function on a thread of its own, to that thread's end, and returns its result.
template <typename Function>
auto OnAnotherThread(const Function& function) {
    return std::async(std::launch::async, function).get();
}

// Acquires a mutex without waiting on a thread that ends with it.
inline void AbandonOnAnotherThread(MutexObject& mutex) {
    OnAnotherThread([&] { return mutex.Acquire(0); });
}

}  // namespace Quorvel::Testing
