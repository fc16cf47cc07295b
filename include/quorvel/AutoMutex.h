#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/MutexObject.h"

namespace Quorvel {

/// Holds a MutexObject for the length of a scope.
///
/// A wait that returned #kWaitAbandoned counts as not acquired: the guard does not release the
/// mutex, although the calling thread may now hold it. A wait that timed out counts as acquired:
/// the guard calls MutexObject::Release, which does nothing.
///
/// **Threads.** The thread that makes a guard must also destroy it: no other thread can release the
/// mutex.
class QUORVEL_API AutoMutex {
public:
    /// Acquires a mutex.
    ///
    /// @param mutex    Must outlive the guard.
    /// @param timeout  The longest wait in milliseconds, or #kWaitForever.
    AutoMutex(MutexObject& mutex, std::uint32_t timeout);
    AutoMutex(const AutoMutex&) = delete;
    AutoMutex& operator=(const AutoMutex&) = delete;

    /// Releases the mutex unless the wait returned #kWaitAbandoned.
    ~AutoMutex();

    /// @return The result of MutexObject::Acquire.
    std::uint32_t WaitResult() const { return waitResult_; }

private:
    MutexObject* mutex_;
    std::uint32_t waitResult_;
};

}  // namespace Quorvel
