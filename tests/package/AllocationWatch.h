#pragma once

#include <cstddef>

namespace Quorvel::Testing {

// While it exists, watches the calling thread's requests to operator new. Each thread may have one.
class AllocationWatch {
public:
    AllocationWatch();
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;
    ~AllocationWatch();

    // The size of the largest single block requested since construction, granted or not.
    std::size_t Largest() const;
};

}  // namespace Quorvel::Testing
