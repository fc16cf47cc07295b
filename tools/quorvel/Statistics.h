#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/quorvel/Cache.h"

namespace Quorvel::Tool {

// What a page is used for.
enum class PageKind : std::uint8_t {
    kHead,
    kIndex,
    kEffects,  // whole pages of effects, or of other streams
    kTails,
    kFree,
    kUnowned,
    kDead
};

// Their names, in that order, as they appear in JSON.
constexpr std::array<const char*, 7> kPageKinds = {"head", "index",   "effects", "tails",
                                                   "free", "unowned", "dead"};

// Adjacent pages of one kind and one owner.
struct PageRun {
    PageKind kind;
    std::uint64_t owner;  // the stream or the tail block; otherwise 0
    std::uint64_t count;
};

// What the pages of a package's file are used for, in the order of the file.
std::vector<PageRun> FindPageRuns(const Snapshot& snapshot);

// Figures about a package, and about the effects in it.
struct Statistics {
    // A group of a histogram: the effects from the limit of the previous group up to its own limit.
    struct Group {
        std::string label;
        std::uint64_t count;
    };

    std::uint64_t fileSize = 0;
    std::uint64_t filePages = 0;
    std::array<std::uint64_t, kPageKinds.size()> pages = {};  // of each kind
    std::uint64_t streams = 0;
    std::uint64_t streamBytes = 0;
    std::uint64_t tailBlocks = 0;
    std::uint64_t tailBytes = 0;  // the bytes in use in all blocks of 64 KiB

    // Only for an effect cache.
    std::uint64_t effects = 0;
    std::uint64_t effectBytes = 0;
    std::uint64_t permanent = 0;
    std::uint64_t permanentBytes = 0;
    std::vector<Group> sizes;
    std::vector<Group> ages;

    std::uint64_t Pages(PageKind kind) const { return pages[static_cast<std::size_t>(kind)]; }
};

Statistics MakeStatistics(const Snapshot& snapshot);

// With stable keys, as docs/tool.md says.
Json ToJson(const Statistics& statistics, bool holdsEffects);

}  // namespace Quorvel::Tool
