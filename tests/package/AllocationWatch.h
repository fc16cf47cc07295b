#pragma once

#include <cstddef>

namespace Quorvel::Testing {

// Watches what this program asks of operator new while it lives. Only one may live at a time.
class AllocationWatch {
public:
    AllocationWatch();
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;
    ~AllocationWatch();

    // The size of the largest single block asked for since construction, granted or not.
    std::size_t Largest() const;
};

}  // namespace Quorvel::Testing
