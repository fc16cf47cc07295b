#pragma once

#include <cstdint>

// Mutexes that processes share by name, with the semantics of a Windows mutex object: recursive,
// owned by a thread, removed when the last process closes it, and passed on as abandoned when its
// owner ends without releasing it.
namespace Quorvel::Platform {

// Opens the mutex of a name, or creates it without an owner; a null name creates an unnamed mutex.
// Returns a handle, or null when the system refuses (LastSystemError).
void* OpenNamedMutex(const char* name) noexcept;
void* OpenNamedMutex(const wchar_t* name) noexcept;

// Waits up to timeout milliseconds, or without limit for 0xFFFFFFFF. Returns 0 when the calling
// thread now owns the mutex, 128 when it does and the previous owner ended without releasing it,
// 258 after a timeout, 0xFFFFFFFF when the wait failed.
[[nodiscard]] std::uint32_t AcquireNamedMutex(void* handle, std::uint32_t timeout) noexcept;

// Releases one acquisition. Does nothing when the calling thread does not own the mutex.
void ReleaseNamedMutex(void* handle) noexcept;

// Closes the handle. Does nothing for the system's invalid handle, all ones. A mutex that is still
// owned stays owned until its owner ends or every other handle is closed.
void CloseNamedMutex(void* handle) noexcept;

}  // namespace Quorvel::Platform
