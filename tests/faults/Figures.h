#pragma once

#include <cstdint>

namespace Quorvel::Testing {

// What the tests of this program have tried, for the line that it prints at its end.
struct Figures {
    std::uint64_t callRuns = 0;        // runs of a script in which calls of the file system failed
    std::uint64_t allocationRuns = 0;  // in which allocations failed
    std::uint64_t damagedFiles = 0;    // files that were damaged and opened
};

Figures& FiguresOfThisProgram();

}  // namespace Quorvel::Testing
