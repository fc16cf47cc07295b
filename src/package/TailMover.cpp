#include "package/TailMover.h"

#include <algorithm>

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
    try {
        seeker->Attach(state_.allocator,
                       {kInvalidStreamId, kTailBlockSize, block->pages.front(), kTailBlockPages},
                       {});
    } catch (const FileDataCorruptException&) {
        return;  // RemoveTail reports it
    }
    block_ = new PagedFileStream(&cache_, seeker);
    PinBlock(seeker->pageNumbers);
}

// The page in which the fragment begins may lie past the end of the file: it is written before any
// other is read, and the file grows to cover it. The other pages must lie in the file.
void TailMover::PinBlock(const std::uint64_t* pages) {
    const std::uint64_t* const end = pages + kTailBlockPages;
    const std::uint64_t* const first = pages + (fragment_.offset >> kPageShift);
    if (fragment_.offset + fragment_.length >= kTailBlockSize) { return; }  // nothing moves
    isCutOff_ = !std::all_of(first + 1, end,
                             [this](std::uint64_t page) { return cache_.CoversPage(page); });
    if (isCutOff_) { return; }
    for (const std::uint64_t* page = first; page != end; ++page) {
        PageRef& pin = pins_[static_cast<std::size_t>(page - pages)].emplace(&cache_);
        pin.SetWritePage(*page);
        if (!pin.Data()) {
            for (std::optional<PageRef>& other : pins_) {
                other.reset();
            }
            return;
        }
    }
}

bool TailMover::RemoveTail() {
    if (!block_) { throw FileDataCorruptException(); }
    if (isCutOff_) { throw FileIOException(); }
    if (!block_->RemoveRange(static_cast<std::int32_t>(fragment_.offset),
                             static_cast<std::int32_t>(fragment_.length))) {
        return false;
    }
    state_.tailBlocks.Remove(fragment_.streamId);
    return true;
}

void TailMover::ReattachStreams(OpenStreams& openStreams) {
    openStreams.RemoveIf([this](const OpenStreams::Item& open) {
        const TailFragment* const fragment = state_.tailBlocks.FindFragment(open.id);
        return fragment && fragment->blockId == fragment_.blockId &&
               !Reattach(open.id, *open.stream);
    });
}

bool TailMover::Reattach(std::uint64_t id, ChildFileStream& stream) const {
    try {
        QUORVEL_ASSERT(state_.directory.Find(id));
        ChildFileTail tail;
        GetChildFileTail(tail, state_.tailBlocks, id);
        const Util::RefPtr<ChildFileSeeker> seeker(new ChildFileSeeker);
        seeker->Attach(state_.allocator, *state_.directory.Find(id), tail);
        stream.MoveTo(seeker);
        return true;
    } catch (...) {
        stream.LeavePackage();
        return false;
    }
}

}  // namespace Quorvel
