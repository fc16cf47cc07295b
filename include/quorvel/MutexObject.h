#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/VornHeapOperators.h"

namespace Quorvel {

constexpr std::uint32_t kWaitAcquired = 0;     ///< MutexObject::Acquire: the thread holds it.
constexpr std::uint32_t kWaitAbandoned = 128;  ///< Its last holder ended, or there is no mutex.
constexpr std::uint32_t kWaitTimedOut = 258;   ///< Another thread still holds it.

/// The timeout that never expires.
constexpr std::uint32_t kWaitForever = 0xFFFFFFFF;

/// A mutex of the operating system, shared by all processes that open the same name: on Windows
/// those of the same session, on POSIX those of the same user.
///
/// It lives as long as any process has it open. The thread that holds it may acquire it again; each
/// acquisition needs its own release. Any thread may use an object at any time.
class QUORVEL_API MutexObject : public VornHeapOperators {
public:
    /// Has no mutex: Acquire() returns #kWaitAbandoned at once.
    MutexObject() noexcept;

    /// Opens the mutex of that name or creates it, without acquiring it.
    ///
    /// @param name  NUL-terminated. A null name creates a mutex that no other process can open.
    /// @throws Win32APICallFailedException
    explicit MutexObject(const char* name);

    /// The same with a wide name.
    ///
    /// @param name  NUL-terminated, or null.
    /// @throws Win32APICallFailedException
    explicit MutexObject(const wchar_t* name);

    MutexObject(const MutexObject&) = delete;
    MutexObject& operator=(const MutexObject&) = delete;

    /// Closes the mutex. A thread that still holds it keeps holding it as long as the thread lives
    /// and the mutex is open elsewhere.
    ~MutexObject();

    /// Waits for the mutex.
    ///
    /// @param timeout  The longest wait in milliseconds, or #kWaitForever.
    /// @return #kWaitAcquired; #kWaitTimedOut when another thread still holds it; or
    ///         #kWaitAbandoned, either when its previous holder ended without releasing it and the
    ///         calling thread now holds it, or when there is no mutex.
    std::uint32_t Acquire(std::uint32_t timeout);

    /// Releases one acquisition. Does nothing when the calling thread does not hold the mutex.
    void Release();

private:
    void* handle_;
};

}  // namespace Quorvel
