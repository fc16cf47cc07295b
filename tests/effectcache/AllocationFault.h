#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// Makes the calling thread's allocations fail while it lives: the first `skipped` go through, the
// next one throws std::bad_alloc, those behind it go through again.
class AllocationFault {
public:
    explicit AllocationFault(std::uint64_t skipped);
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;
    ~AllocationFault();

    // Whether the allocation that was to fail has been asked for.
    bool HasFailed() const;
};

}  // namespace Quorvel::Testing
