#include "package/TailMover.h"

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"
#include "quorvel/IDataStreamSet.h"
#include "seekers/ChildFileSeeker.h"

namespace Quorvel {

TailMover::TailMover(FilePageCache& cache, StoredState& state, const TailFragment& fragment)
    : cache_(cache), state_(state), fragment_(fragment) {
    const TailBlockRecord* const block = state_.tailBlocks.FindBlock(fragment_.blockId);
    QUORVEL_ASSERT(block);
    const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
    seeker->Attach(state_.allocator,
                   {kInvalidStreamId, kTailBlockSize, block->pages.front(), kTailBlockPages}, {});
    block_ = new PagedFileStream(&cache_, seeker);
    PinBlock();
}

void TailMover::PinBlock() {
    std::uint64_t page = state_.tailBlocks.FindBlock(fragment_.blockId)->pages.front();
    for (std::uint64_t slot = 0; slot < kTailBlockPages; ++slot) {
        QUORVEL_ASSERT(IsValidPageNumber(page));
        if (slot >= fragment_.offset >> kPageShift) {
            pins_[slot].emplace(&cache_).SetWritePage(page);
            if (!pins_[slot]->Data()) {
                for (std::optional<PageRef>& pin : pins_) {
                    pin.reset();
                }
                return;
            }
        }
        page = state_.allocator->GetNextPage(page);
    }
}

bool TailMover::RemoveTail() {
    if (!block_->RemoveRange(static_cast<std::int32_t>(fragment_.offset),
                             static_cast<std::int32_t>(fragment_.length))) {
        return false;
    }
    state_.tailBlocks.Remove(fragment_.streamId);
    return true;
}

void TailMover::ReattachStreams(const OpenStreams& openStreams) {
    for (const auto& [id, stream] : openStreams) {
        const TailFragment* const fragment = state_.tailBlocks.FindFragment(id);
        if (!fragment || fragment->blockId != fragment_.blockId) { continue; }
        try {
            QUORVEL_ASSERT(state_.directory.Find(id));
            ChildFileTail tail;
            GetChildFileTail(tail, state_.tailBlocks, id);
            const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
            seeker->Attach(state_.allocator, *state_.directory.Find(id), tail);
            stream->MoveTo(seeker);
        } catch (...) { stream->Detach(); }
    }
}

}  // namespace Quorvel
