#pragma once

#include <cstdint>

// Mutexes that processes share by name, with the meaning of a Windows mutex object: recursive,
// owned by a thread, gone with the last process that has it open, and handed on as abandoned when
// its owner ends without releasing it.
namespace Quorvel::Platform {

// Opens the mutex of a name, or makes it, owned by nobody; a null name makes one without a name.
// Returns a handle, or null when the system refuses (LastSystemError).
void* OpenNamedMutex(const char* name) noexcept;
void* OpenNamedMutex(const wchar_t* name) noexcept;

// Waits up to timeout milliseconds, 0xFFFFFFFF for ever. Returns 0 when the calling thread now owns
// the mutex, 128 when it does and the last owner ended without releasing it, 258 when the time is
// up, 0xFFFFFFFF when the wait failed.
std::uint32_t AcquireNamedMutex(void* handle, std::uint32_t timeout) noexcept;

// Gives back one acquisition; refused silently when the calling thread does not own the mutex.
void ReleaseNamedMutex(void* handle) noexcept;

// Closes the handle; the system's invalid handle, all ones, closes nothing. A mutex that is still
// owned stays so until its owner ends or everybody else has closed it.
void CloseNamedMutex(void* handle) noexcept;

}  // namespace Quorvel::Platform
