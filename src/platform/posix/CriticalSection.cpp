#include "platform/CriticalSection.h"

#include <memory>
#include <mutex>
#include <new>

namespace Quorvel::Platform {

namespace {

std::recursive_mutex* Native(std::byte* storage) {
    return std::launder(reinterpret_cast<std::recursive_mutex*>(storage));
}

}  // namespace

CriticalSection::CriticalSection() {
    static_assert(sizeof(std::recursive_mutex) <= sizeof(storage_));
    ::new (storage_) std::recursive_mutex;
}

CriticalSection::~CriticalSection() {
    std::destroy_at(Native(storage_));
}

void CriticalSection::Enter() noexcept {
    Native(storage_)->lock();
}

void CriticalSection::Leave() noexcept {
    Native(storage_)->unlock();
}

}  // namespace Quorvel::Platform
