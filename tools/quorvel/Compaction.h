#pragma once

#include <cstdint>

#include "tools/quorvel/Cache.h"

namespace Quorvel::Tool {

struct CompactionResult {
    std::uint64_t effects = 0;  // kept
    std::uint64_t damaged = 0;  // left out, because their bytes were not intact
    std::uint64_t sizeBefore = 0;
    std::uint64_t sizeAfter = 0;
};

enum class Keep { Everything, Nothing };

// Replaces a cache's file, in place, with one that holds the same effects and nothing else, or with
// an empty one. If the process dies, the file holds the old state or the new one, perhaps with
// unused pages at its end. The new file is prepared in "<path>-compact", and the old pages are kept
// in the journal meanwhile, so the volume must have room for both. With Keep::Nothing the old file
// may be damaged, and on a full volume it is emptied in place: if the process dies then, hosts find
// no package and begin an empty cache. Throws Failure.
CompactionResult Compact(Cache& cache, const Cache::Lock& lock, Keep keep, const Session& session);

}  // namespace Quorvel::Tool
