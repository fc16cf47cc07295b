#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/VornHeapOperators.h"

namespace Quorvel {

class MutexObject;

/// A named block of memory, guarded by its own named mutex and shared by every process that opens
/// the same name: on Windows those of the same session, on POSIX those of the same user.
///
/// A hook, called under that mutex, tells a subclass whether the block is new or already existed.
/// The block lives as long as any process has it open.
///
/// One thread at a time may use an object. Objects with the same name are independent.
class QUORVEL_API MultiProcessMemory : public VornHeapOperators {
public:
    /// Has no block yet.
    MultiProcessMemory() noexcept;
    MultiProcessMemory(const MultiProcessMemory&) = delete;
    MultiProcessMemory& operator=(const MultiProcessMemory&) = delete;

    /// Closes the block and its mutex.
    virtual ~MultiProcessMemory();

    /// Acquires the block's mutex. A wait that timed out still returns the block.
    ///
    /// @param timeout  The longest wait in milliseconds, or #kWaitForever.
    /// @return The block. Null when there is none, or when the previous holder of the mutex ended
    ///         without releasing it; in the second case the calling thread now holds it and must
    ///         call Unlock().
    void* Lock(std::uint32_t timeout);

    /// Releases the block's mutex.
    void Unlock();

    /// @return Always 0: the object does not keep the size.
    std::uint64_t GetBytes() const;

protected:
    /// Closes its previous block, opens the block of that name or creates it with zero bytes, and
    /// calls the matching hook.
    ///
    /// @param name   Name of the block, NUL-terminated.
    /// @param bytes  Size of a block that has to be created.
    /// @return Always true.
    /// @throws Win32APICallFailedException when the system refuses or the previous holder of the
    ///         block's mutex ended without releasing it
    /// @throws OutOfMemoryException
    bool Initialize(const char* name, std::uint64_t bytes);

    /// Called once by Initialize(), under the mutex, for a block that it created.
    ///
    /// @param block  The block.
    virtual void OnMemoryCreated(void* block);

    /// Called once by Initialize(), under the mutex, for a block that already existed.
    ///
    /// @param block  The block.
    virtual void OnMemoryAttached(void* block);

private:
    void Close() noexcept;

    MutexObject* mutex_;
    std::uint64_t bytes_;
    void* mapping_;
    void* view_;
};

}  // namespace Quorvel
