#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// While it lives, makes malloc fail in the thread that created it, and with it the heap of the
// host's classes. Works only in programs that are linked with --wrap. Standard containers are not
// affected.
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
