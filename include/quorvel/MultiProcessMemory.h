#pragma once

#include <cstdint>

#include "quorvel/Export.h"
#include "vornutil/VornHeapOperators.h"

namespace Quorvel {

class MutexObject;

// A named block of memory that every process sees which opens the same name (on POSIX every one of
// the same user), with a named mutex of its own to guard it. A subclass learns, under that mutex,
// whether it got a fresh block to fill or one that others have filled. The block lives as long as
// anybody has it open.
class QUORVEL_API MultiProcessMemory : public VornHeapOperators {
public:
    // No block yet.
    MultiProcessMemory() noexcept;
    MultiProcessMemory(const MultiProcessMemory&) = delete;
    MultiProcessMemory& operator=(const MultiProcessMemory&) = delete;

    // Leaves the block and its mutex.
    virtual ~MultiProcessMemory();

    // Acquires the block's mutex, waiting up to timeout milliseconds, and returns the block. Null
    // when there is no block, or when the mutex's last holder ended without releasing it; in that
    // case the calling thread now holds it, and Unlock gives it back. A wait that timed out still
    // returns the block.
    void* Lock(std::uint32_t timeout);

    // Releases the block's mutex.
    void Unlock();

    // Always 0: the size is known to who named the block, and not kept here.
    std::uint64_t GetBytes() const;

protected:
    // Opens the block of that name, or makes it with the given number of bytes, all zero, and
    // calls the matching hook before anybody else can see it. Leaves the block it had before.
    // Returns true. Throws Win32APICallFailedException when the system refuses, or when the last
    // holder of the block's mutex ended without releasing it; OutOfMemoryException.
    bool Initialize(const char* name, std::uint64_t bytes);

    // Called once by Initialize with the block, under its mutex: the first for a block that
    // Initialize made, the second for one that was there.
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
