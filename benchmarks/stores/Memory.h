#pragma once

#include <cstdint>

namespace Quorvel::Benchmarks {

// Resident bytes of this process, from /proc/self/status.
struct ResidentMemory {
    std::uint64_t all;   // including mapped files
    std::uint64_t heap;  // not backed by a file
};
ResidentMemory CurrentMemory();

// The greatest growth of each since construction: that of `all` as the kernel recorded it, that of
// `heap` as seen by the calls of Sample.
class MemoryPeak {
public:
    MemoryPeak();
    void Sample();
    ResidentMemory Peak();

private:
    ResidentMemory start_;
    std::uint64_t heapPeak_;
};

}  // namespace Quorvel::Benchmarks
