#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// Counts for the line that this program prints at its end.
struct Figures {
    std::uint64_t callRuns = 0;        // runs in which file system calls failed
    std::uint64_t allocationRuns = 0;  // runs in which allocations failed
    std::uint64_t damagedFiles = 0;    // files that were damaged and opened
};

Figures& FiguresOfThisProgram();

}  // namespace Quorvel::Testing
