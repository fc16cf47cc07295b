#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "package/OpenStreams.h"
#include "package/StoredState.h"
#include "pagestore/FilePageCache.h"
#include "pagestore/PagedFileStream.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// Cuts one stream's tail out of its tail block: the bytes after it move down, and open streams
// whose tails moved follow them.
//
// In a sound file everything that can fail happens in the constructor; RemoveTail then works from
// memory. One exception: a cache that can't pin all pages of the block loads them one by one.
class TailMover {
public:
    // Opens the block and pins its pages from the one where the fragment begins. Throws as
    // FilePageCache does, and std::bad_alloc.
    TailMover(FilePageCache& cache, StoredState& state, const TailFragment& fragment);
    TailMover(const TailMover&) = delete;
    TailMover& operator=(const TailMover&) = delete;

    // Cuts the fragment out of the block and out of the table. False if its bytes can't be cut; the
    // table is then unchanged. Throws FileDataCorruptException if the block's chain is broken, and
    // FileIOException if bytes after the fragment are not in the file; nothing has changed then.
    // Also throws as FilePageCache does if pages were not pinned.
    [[nodiscard]] bool RemoveTail();

    // Attaches every open stream that has a tail in the block to its new place. A stream that can't
    // be attached has no bytes from then on and is removed from `openStreams`.
    void ReattachStreams(OpenStreams& openStreams);

private:
    void PinBlock(const std::uint64_t* pages);
    [[nodiscard]] bool Reattach(std::uint64_t id, ChildFileStream& stream) const;

    FilePageCache& cache_;
    StoredState& state_;
    const TailFragment fragment_;
    Util::RefPtr<PagedFileStream> block_;  // null when its chain is broken
    bool isCutOff_ = false;                // bytes that must move lie past the end of the file
    std::array<std::optional<PageRef>, kTailBlockPages> pins_;
};

}  // namespace Quorvel
