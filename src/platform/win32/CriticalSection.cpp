#include "platform/CriticalSection.h"

#include <windows.h>

namespace Quorvel::Platform {

namespace {

CRITICAL_SECTION* Native(std::byte* storage) {
    return reinterpret_cast<CRITICAL_SECTION*>(storage);
}

}  // namespace

CriticalSection::CriticalSection() {
    static_assert(sizeof(CRITICAL_SECTION) <= sizeof(storage_));
    ::InitializeCriticalSection(Native(storage_));
}

CriticalSection::~CriticalSection() {
    ::DeleteCriticalSection(Native(storage_));
}

void CriticalSection::Enter() noexcept {
    ::EnterCriticalSection(Native(storage_));
}

void CriticalSection::Leave() noexcept {
    ::LeaveCriticalSection(Native(storage_));
}

}  // namespace Quorvel::Platform
