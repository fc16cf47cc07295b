#pragma once

#include <cstddef>
#include <cstdint>

namespace Quorvel::Testing {

// The library's allocations: operator new, and the host's heap, which is malloc. Only allocations
// of the calling thread inside a LibraryCall count and fail, so a test may allocate while a fault
// is armed.

// Marks the code of a scope as the library's.
class LibraryCall {
public:
    LibraryCall();
    LibraryCall(const LibraryCall&) = delete;
    LibraryCall& operator=(const LibraryCall&) = delete;
    ~LibraryCall();
};

// Makes allocations fail while it exists: the first `skipped` succeed, the next `failures` fail.
// Each thread may have one at a time.
class MemoryFault {
public:
    static constexpr std::uint64_t kEveryLaterCall = ~std::uint64_t{0};

    MemoryFault(std::uint64_t skipped, std::uint64_t failures);
    MemoryFault(const MemoryFault&) = delete;
    MemoryFault& operator=(const MemoryFault&) = delete;
    ~MemoryFault();

    // The number of allocations that failed since construction.
    std::uint64_t Failures() const;
};

// While it exists, counts the bytes that the library holds. Each thread may have one at a time.
class MemoryWatch {
public:
    MemoryWatch();
    MemoryWatch(const MemoryWatch&) = delete;
    MemoryWatch& operator=(const MemoryWatch&) = delete;
    ~MemoryWatch();

    // The peak number of bytes held since construction, not counting those held before.
    std::uint64_t Peak() const;
};

}  // namespace Quorvel::Testing
