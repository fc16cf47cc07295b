#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "quorvel/MutexObject.h"

namespace Quorvel {

// Holds a MutexObject for the length of a scope.
//
// A wait that ended in kWaitAbandoned counts as not acquired: the guard does not release it,
// although the calling thread may now hold the mutex. A wait that timed out counts as acquired;
// the release is then refused by the system, which does no harm.
class QUORVEL_API AutoMutex {
public:
    // Acquires mutex, waiting up to timeout milliseconds. The mutex must outlive the guard.
    AutoMutex(MutexObject& mutex, std::uint32_t timeout);
    AutoMutex(const AutoMutex&) = delete;
    AutoMutex& operator=(const AutoMutex&) = delete;

    // Releases the mutex unless the wait ended in kWaitAbandoned.
    ~AutoMutex();

    // What MutexObject::Acquire returned.
    std::uint32_t WaitResult() const { return waitResult_; }

private:
    MutexObject* mutex_;
    std::uint32_t waitResult_;
};

}  // namespace Quorvel
