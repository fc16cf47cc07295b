#include "package/PackageAudit.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "platform/Assert.h"

namespace Quorvel {

namespace {

// An allocated page may lie this far past the end of the file.
constexpr std::uint64_t kMostPagesPastEnd = 128;

// The pages that have been found to belong to something.
class PageClaims {
public:
    PageClaims(PageAllocator& allocator, const FilePageCache& cache)
        : allocator_(allocator),
          cache_(cache),
          claimed_(allocator.HighestPage() - kHeadPageNumber + 1) {}

    // False for a page that is free, already claimed or past the end of the file.
    bool Claim(std::uint64_t page) {
        if (!IsUnclaimed(page) || !cache_.CoversPage(page)) { return false; }
        claimed_[page - kHeadPageNumber] = true;
        return true;
    }

    // Claims a page and all that follow it. False if one of them can't be claimed, as in a chain
    // that returns to itself.
    bool ClaimChain(std::uint64_t page) {
        for (; IsValidPageNumber(page); page = allocator_.GetNextPage(page)) {
            if (!Claim(page)) { return false; }
        }
        return true;
    }

    // Adds a page whose successor, if it has one, must have no owner.
    void AddLooseEnd(std::uint64_t page) { looseEnds_.push_back(page); }

    // True if the successors of loose ends and of unclaimed pages are allocated and unclaimed.
    bool AreOthersApart() {
        for (std::uint64_t index = 0; index < claimed_.size(); ++index) {
            if (!claimed_[index]) { AddLooseEnd(index + kHeadPageNumber); }
        }
        return std::all_of(looseEnds_.begin(), looseEnds_.end(), [&](std::uint64_t page) {
            const std::uint64_t next = allocator_.GetNextPage(page);
            return !IsValidPageNumber(next) || IsUnclaimed(next);
        });
    }

private:
    bool IsUnclaimed(std::uint64_t page) const {
        if (!allocator_.IsPageAllocated(page)) { return false; }
        QUORVEL_ASSERT(page - kHeadPageNumber < claimed_.size());
        return !claimed_[page - kHeadPageNumber];
    }

    PageAllocator& allocator_;
    const FilePageCache& cache_;
    std::vector<bool> claimed_;  // by page index; no page past the highest one is allocated
    std::vector<std::uint64_t> looseEnds_;
};

bool ClaimStreams(PageClaims& claims, const StreamDirectory& directory) {
    bool isSound = true;
    directory.ForEach([&](const ChildFileExtent& stream) {
        isSound = isSound && claims.ClaimChain(stream.firstPage);
    });
    return isSound;
}

// True if the fragments and the list name each other, and the fragments do not overlap and lie
// below the block's free bytes.
bool AreFragmentsSound(const TailBlockTable& table, const TailBlockRecord& block) {
    const std::vector<std::uint64_t>& list = block.streamIds;
    std::vector<const TailFragment*> fragments;
    fragments.reserve(list.size());
    for (const std::uint64_t streamId : block.tails) {
        const TailFragment* const fragment = table.FindFragment(streamId);
        QUORVEL_ASSERT(fragment && fragment->blockId == block.blockId);
        if (fragment->listIndex >= list.size() || list[fragment->listIndex] != streamId) {
            return false;
        }
        fragments.push_back(fragment);
    }
    std::sort(fragments.begin(), fragments.end(), [](const auto* left, const auto* right) {
        return std::pair(left->offset, left->length) < std::pair(right->offset, right->length);
    });
    std::uint64_t end = 0;
    for (const TailFragment* const fragment : fragments) {
        if (fragment->offset < end) { return false; }
        end = fragment->offset + fragment->length;
    }
    return list.size() == fragments.size() && end <= kTailBlockSize - block.freeBytes;
}

bool ClaimTailBlocks(PageClaims& claims, PageAllocator& allocator, const TailBlockTable& table) {
    for (const std::unique_ptr<TailBlockRecord>& block : table.Blocks()) {
        if (!block) { continue; }
        const TailBlockPageNumbers& pages = block->pages;
        for (std::uint64_t slot = 0; slot < kTailBlockPages; ++slot) {
            const bool isLinked = slot + 1 == kTailBlockPages ||
                                  allocator.GetNextPage(pages[slot]) == pages[slot + 1];
            if (!claims.Claim(pages[slot]) || !isLinked) { return false; }
        }
        claims.AddLooseEnd(pages.back());
        if (!AreFragmentsSound(table, *block)) { return false; }
    }
    return true;
}

}  // namespace

bool IsSound(const StoredState& state, const FilePageCache& cache) noexcept {
    QUORVEL_ASSERT(state.headFile);
    try {
        const std::uint64_t highest = state.allocator->HighestPage();
        if (highest > kMostPagesPastEnd + kHeadPageNumber &&
            !cache.CoversPage(highest - kMostPagesPastEnd)) {
            return false;
        }
        PageClaims claims(*state.allocator, cache);
        const std::uint64_t* const headPages = state.headFile->pageNumbers;
        return std::all_of(headPages, headPages + KnownPageCount(*state.headFile),
                           [&](std::uint64_t page) { return claims.Claim(page); }) &&
               ClaimStreams(claims, state.directory) &&
               ClaimTailBlocks(claims, *state.allocator, state.tailBlocks) &&
               claims.AreOthersApart();
    } catch (...) { return false; }
}

}  // namespace Quorvel
