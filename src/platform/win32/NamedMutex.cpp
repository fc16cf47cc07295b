#include "platform/NamedMutex.h"

#include <windows.h>

namespace Quorvel::Platform {

void* OpenNamedMutex(const char* name) noexcept {
    return ::CreateMutexA(nullptr, FALSE, name);
}

void* OpenNamedMutex(const wchar_t* name) noexcept {
    return ::CreateMutexW(nullptr, FALSE, name);
}

std::uint32_t AcquireNamedMutex(void* handle, std::uint32_t timeout) noexcept {
    return ::WaitForSingleObject(handle, timeout);
}

void ReleaseNamedMutex(void* handle) noexcept {
    ::ReleaseMutex(handle);
}

void CloseNamedMutex(void* handle) noexcept {
    ::CloseHandle(handle);
}

}  // namespace Quorvel::Platform
