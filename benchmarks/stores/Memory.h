#pragma once

#include <cstdint>

namespace Quorvel::Benchmarks {

// Bytes of this process that are in memory, from /proc/self/status.
struct ResidentMemory {
    std::uint64_t all;   // mapped files included
    std::uint64_t heap;  // what no file backs
};
ResidentMemory CurrentMemory();

// The most of each since construction, over what there was then: of `all` as the kernel recorded
// it, of `heap` at the moments of Sample.
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
