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
// Everything that can fail happens in the constructor; RemoveTail then works from memory. The one
// exception is a cache that can't pin all pages of the block, which loads them one by one.
class TailMover {
public:
    // Opens the block and pins its pages from the one where the fragment begins. Throws
    // FileDataCorruptException for a block whose chain is broken, and as FilePageCache does.
    TailMover(FilePageCache& cache, StoredState& state, const TailFragment& fragment);
    TailMover(const TailMover&) = delete;
    TailMover& operator=(const TailMover&) = delete;

    // Cuts the fragment out of the block and out of the table. False if its bytes can't be cut; the
    // table is then unchanged. Throws as FilePageCache does where pages were not pinned.
    [[nodiscard]] bool RemoveTail();

    // Attaches every open stream that has a tail in the block to its new place. A stream that can't
    // be attached has no bytes from then on.
    void ReattachStreams(const OpenStreams& openStreams);

private:
    void PinBlock();

    FilePageCache& cache_;
    StoredState& state_;
    const TailFragment fragment_;
    Util::RefPtr<PagedFileStream> block_;
    std::array<std::optional<PageRef>, kTailBlockPages> pins_;
};

}  // namespace Quorvel
