#pragma once

#include "package/StoredState.h"
#include "pagestore/FilePageCache.h"

namespace Quorvel {

// True if nothing in a loaded package can make one stream's bytes appear in another, now or after a
// change:
// - each page of the head file, of a stream and of a tail block is allocated, lies in the file and
//   has one owner;
// - the pages of each tail block are linked in the order of its record;
// - the fragments of a block and its list name each other; the fragments do not overlap and do not
//   reach into the block's free bytes;
// - the successor of any other page is allocated and has no owner: otherwise the next load would
//   find two pages with one successor;
// - no page is allocated far past the end of the file: the next new page would make the file grow
//   to there.
// Other faults only waste space. Also false if memory runs out. REQUIRES: the state was read or
// written.
[[nodiscard]] bool IsSound(const StoredState& state, const FilePageCache& cache) noexcept;

}  // namespace Quorvel
