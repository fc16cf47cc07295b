#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// Makes malloc, and with it the heap of the host's classes, fail in the thread that made this
// object while it lives. Only programs whose calls go through the linker's --wrap see it.
// Allocations of the standard library's containers are not among them.
class HeapFault {
public:
    // Lets the first `skipped` calls through and fails all later ones.
    explicit HeapFault(std::uint64_t skipped = 0);
    HeapFault(const HeapFault&) = delete;
    HeapFault& operator=(const HeapFault&) = delete;
    ~HeapFault();

    // How many calls failed since construction.
    std::uint64_t Failures() const;
};

}  // namespace Quorvel::Testing
