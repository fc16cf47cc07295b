#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// Makes one of the calling thread's allocations fail while it exists: the first `skipped` succeed,
// the next one fails, all later ones succeed.
class AllocationFault {
public:
    explicit AllocationFault(std::uint64_t skipped);
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;
    ~AllocationFault();

    // True once the allocation that is to fail has been requested.
    bool HasFailed() const;
};

}  // namespace Quorvel::Testing
