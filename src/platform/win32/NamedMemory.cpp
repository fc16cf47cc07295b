#include "platform/NamedMemory.h"

#include <windows.h>

namespace Quorvel::Platform {

void* OpenNamedMemory(const char* name) noexcept {
    return ::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name);
}

void* CreateNamedMemory(const char* name, std::uint64_t bytes) noexcept {
    return ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                static_cast<DWORD>(bytes), name);
}

void* MapNamedMemory(void* handle, std::uint64_t bytes) noexcept {
    return ::MapViewOfFile(handle, FILE_MAP_ALL_ACCESS, 0, 0, static_cast<SIZE_T>(bytes));
}

void UnmapNamedMemory(void* /*handle*/, void* view) noexcept {
    ::UnmapViewOfFile(view);
}

void CloseNamedMemory(void* handle) noexcept {
    ::CloseHandle(handle);
}

}  // namespace Quorvel::Platform
