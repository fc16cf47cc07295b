#pragma once

#include <cstddef>
#include <cstdint>

namespace Quorvel::Testing {

// What the library asks of the heap: operator new, and the host's heap, which is malloc. Only what
// the calling thread asks for inside a LibraryCall counts and fails, so that a test may keep its
// books while a fault is armed.

// The code of this scope is the library's.
class LibraryCall {
public:
    LibraryCall();
    LibraryCall(const LibraryCall&) = delete;
    LibraryCall& operator=(const LibraryCall&) = delete;
    ~LibraryCall();
};

// Makes allocations fail while it lives: the first `skipped` go through, the next `failures` don't.
// Only one may live at a time.
class MemoryFault {
public:
    static constexpr std::uint64_t kEveryLaterCall = ~std::uint64_t{0};

    MemoryFault(std::uint64_t skipped, std::uint64_t failures);
    MemoryFault(const MemoryFault&) = delete;
    MemoryFault& operator=(const MemoryFault&) = delete;
    ~MemoryFault();

    // How many allocations failed since construction.
    std::uint64_t Failures() const;
};

// Counts the bytes that the library holds while it lives. Only one may live at a time.
class MemoryWatch {
public:
    MemoryWatch();
    MemoryWatch(const MemoryWatch&) = delete;
    MemoryWatch& operator=(const MemoryWatch&) = delete;
    ~MemoryWatch();

    // Most bytes held at any one time since construction, beyond those held then.
    std::uint64_t Peak() const;
};

}  // namespace Quorvel::Testing
