#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"

namespace Quorvel::Tool {

// Figures about a package, and about the effects in it.
struct Statistics {
    // A group of a histogram: the effects from the limit of the group before up to its own.
    struct Group {
        std::string label;
        std::uint64_t count;
    };

    struct Pages {
        std::uint64_t file = 0;  // sum of the others
        std::uint64_t head = 0;
        std::uint64_t index = 0;
        std::uint64_t effects = 0;  // whole pages of effects, or of other streams
        std::uint64_t tails = 0;
        std::uint64_t free = 0;
        std::uint64_t unowned = 0;
        std::uint64_t dead = 0;
    };

    std::uint64_t fileSize = 0;
    Pages pages;
    std::uint64_t streams = 0;
    std::uint64_t streamBytes = 0;
    std::uint64_t tailBlocks = 0;
    std::uint64_t tailBytes = 0;  // of the 64 KiB of each block, those in use

    // Only for an effect cache.
    std::uint64_t effects = 0;
    std::uint64_t effectBytes = 0;
    std::uint64_t permanent = 0;
    std::uint64_t permanentBytes = 0;
    std::vector<Group> sizes;
    std::vector<Group> ages;
};

Statistics MakeStatistics(const Snapshot& snapshot);

// With stable keys, as docs/tool.md says.
Json ToJson(const Statistics& statistics, bool holdsEffects);

}  // namespace Quorvel::Tool
