#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// While it exists, malloc fails in the thread that created it, and so does the heap of the host's
// classes. Standard containers are not affected. Works only in programs linked with --wrap.
class HeapFault {
public:
    // Lets the first `skipped` calls through; all later ones fail.
    explicit HeapFault(std::uint64_t skipped = 0);
    HeapFault(const HeapFault&) = delete;
    HeapFault& operator=(const HeapFault&) = delete;
    ~HeapFault();

    // Number of calls that have failed.
    std::uint64_t Failures() const;
};

}  // namespace Quorvel::Testing
