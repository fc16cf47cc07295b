#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/VornHeapOperators.h"

namespace Quorvel {

class MutexObject;

// A named block of memory, guarded by its own named mutex and shared by every process that opens
// the same name: on Windows those of the same session, on POSIX those of the same user. A hook,
// called under that mutex, tells a subclass whether the block is new or already existed. The block
// lives as long as any process has it open.
class QUORVEL_API MultiProcessMemory : public VornHeapOperators {
public:
    // Has no block yet.
    MultiProcessMemory() noexcept;
    MultiProcessMemory(const MultiProcessMemory&) = delete;
    MultiProcessMemory& operator=(const MultiProcessMemory&) = delete;

    // Closes the block and its mutex.
    virtual ~MultiProcessMemory();

    // Acquires the block's mutex, waiting up to timeout milliseconds, and returns the block.
    // Returns null when there is no block, or when the previous holder of the mutex ended without
    // releasing it; in the second case the calling thread now holds it and must call Unlock. A wait
    // that timed out still returns the block.
    void* Lock(std::uint32_t timeout);

    // Releases the block's mutex.
    void Unlock();

    // Always 0: the object does not keep the size.
    std::uint64_t GetBytes() const;

protected:
    // Closes its previous block, opens the block of that name or creates it with the given number
    // of zero bytes, and calls the matching hook. Always returns true. Throws
    // Win32APICallFailedException when the system refuses or the previous holder of the block's
    // mutex ended without releasing it, and OutOfMemoryException.
    bool Initialize(const char* name, std::uint64_t bytes);

    // Called once by Initialize with the block, under its mutex: the first for a block that
    // Initialize created, the second for one that already existed.
    virtual void OnMemoryCreated(void* block);
    virtual void OnMemoryAttached(void* block);

private:
    void Close() noexcept;

    MutexObject* mutex_;
    std::uint64_t bytes_;
    void* mapping_;
    void* view_;
};

}  // namespace Quorvel
