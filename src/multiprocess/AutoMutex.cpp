#include "quorvel/AutoMutex.h"

namespace Quorvel {

AutoMutex::AutoMutex(MutexObject& mutex, std::uint32_t timeout)
    : mutex_(&mutex), waitResult_(mutex.Acquire(timeout)) {}

AutoMutex::~AutoMutex() {
    if (waitResult_ != kWaitAbandoned) { mutex_->Release(); }
}

}  // namespace Quorvel
