#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/VornHeapOperators.h"

namespace Quorvel {

// Results of MutexObject::Acquire.
constexpr std::uint32_t kWaitAcquired = 0;
constexpr std::uint32_t kWaitAbandoned = 128;
constexpr std::uint32_t kWaitTimedOut = 258;

// The time-out that waits for ever.
constexpr std::uint32_t kWaitForever = 0xFFFFFFFF;

// A mutex of the operating system, shared by all processes that open the same name; on POSIX, by
// those of one user. It lives as long as anybody has it open. The thread that holds it may acquire
// it again; each acquisition wants its own release.
class QUORVEL_API MutexObject : public VornHeapOperators {
public:
    // No mutex: Acquire returns kWaitAbandoned at once.
    MutexObject() noexcept;

    // Opens the mutex of that name, or makes it, not acquired. A null name makes a mutex of this
    // process alone. Throws Win32APICallFailedException.
    explicit MutexObject(const char* name);
    explicit MutexObject(const wchar_t* name);

    MutexObject(const MutexObject&) = delete;
    MutexObject& operator=(const MutexObject&) = delete;

    // Closes the mutex. A thread that still holds it goes on holding it, as long as it lives and
    // somebody else has the mutex open.
    ~MutexObject();

    // Waits up to timeout milliseconds for the mutex. Returns kWaitAcquired; kWaitTimedOut when it
    // stayed with another thread; kWaitAbandoned when its last holder ended without releasing it,
    // in which case the calling thread now holds it, or when there is no mutex.
    std::uint32_t Acquire(std::uint32_t timeout);

    // Gives back one acquisition. Does nothing when the calling thread does not hold the mutex.
    void Release();

private:
    void* handle_;
};

}  // namespace Quorvel
