#include "package/PackageAudit.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

namespace Quorvel {

namespace {

// The pages that have been found to belong to something.
class PageClaims {
public:
    explicit PageClaims(PageAllocator& allocator)
        : allocator_(allocator), claimed_(allocator.HighestPage() - kHeadPageNumber + 1) {}

    // False for a page that is free or already claimed.
    bool Claim(std::uint64_t page) {
        if (!IsValidPageNumber(page) || !allocator_.IsPageAllocated(page) ||
            claimed_[page - kHeadPageNumber]) {
            return false;
        }
        claimed_[page - kHeadPageNumber] = true;
        return true;
    }

    // Claims a page and all that follow it. False also for a chain that returns to itself.
    bool ClaimChain(std::uint64_t page) {
        while (IsValidPageNumber(page)) {
            if (!Claim(page)) {
                return false;
            }
            page = allocator_.GetNextPage(page);
        }
        return true;
    }

    // True if no unclaimed page has a successor: that page could belong to a stream, or be free and
    // be given to one.
    bool UnclaimedPagesHaveNoSuccessor() const {
        for (std::uint64_t index = 0; index < claimed_.size(); ++index) {
            if (!claimed_[index] &&
                IsValidPageNumber(allocator_.GetNextPage(index + kHeadPageNumber))) {
                return false;
            }
        }
        return true;
    }

private:
    PageAllocator& allocator_;
    std::vector<bool> claimed_;  // by page index; no page past the highest one is allocated
};

bool ClaimHeadFile(PageClaims& claims, IPagedFileSeeker& headFile) {
    headFile.LoadPageInfo(headFile.pageCount - 1);
    return std::all_of(headFile.pageNumbers, headFile.pageNumbers + headFile.pageCount,
                       [&](std::uint64_t page) { return claims.Claim(page); });
}

bool ClaimStreams(PageClaims& claims, const StreamDirectory& directory) {
    bool isSound = true;
    directory.ForEach([&](const ChildFileExtent& stream) {
        isSound = isSound && claims.ClaimChain(stream.firstPage);
    });
    return isSound;
}

// True if a block's list names all fragments of the block, in the order in which they lie in it,
// without gaps.
bool AreFragmentsInOrder(const TailBlockTable& table, const TailBlockRecord& block) {
    if (block.streamIds.size() != block.fragmentCount) {
        return false;
    }
    std::uint64_t end = 0;
    for (std::uint64_t index = 0; index < block.streamIds.size(); ++index) {
        const TailFragment* const fragment = table.FindFragment(block.streamIds[index]);
        if (!fragment || fragment->blockId != block.blockId || fragment->listIndex != index ||
            fragment->offset != end) {
            return false;
        }
        end += fragment->length;
    }
    return end == kTailBlockSize - block.freeBytes;
}

bool ClaimTailBlocks(PageClaims& claims, PageAllocator& allocator, const TailBlockTable& table) {
    for (const std::unique_ptr<TailBlockRecord>& block : table.Blocks()) {
        if (!block) {
            continue;
        }
        for (std::uint64_t slot = 0; slot < kTailBlockPages; ++slot) {
            const std::uint64_t next = allocator.GetNextPage(block->pages[slot]);
            const bool isLast = slot + 1 == kTailBlockPages;
            if (!claims.Claim(block->pages[slot]) ||
                (isLast ? IsValidPageNumber(next) : next != block->pages[slot + 1])) {
                return false;
            }
        }
        if (!AreFragmentsInOrder(table, *block)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool IsSound(const StoredState& state, const FilePageCache& cache) noexcept {
    try {
        PageAllocator& allocator = *state.allocator;
        PageClaims claims(allocator);
        return ClaimHeadFile(claims, *state.headFile) && ClaimStreams(claims, state.directory) &&
               ClaimTailBlocks(claims, allocator, state.tailBlocks) &&
               claims.UnclaimedPagesHaveNoSuccessor() && cache.CoversPage(allocator.HighestPage());
    } catch (...) {
        return false;
    }
}

}  // namespace Quorvel
