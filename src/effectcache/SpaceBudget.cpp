#include "effectcache/SpaceBudget.h"

#include <algorithm>
#include <cerrno>

#include "pagestore/RollbackJournal.h"
#include "platform/DiskSpace.h"

namespace Quorvel {

namespace {

// The pages that a save needs in addition to those for its bytes: effects and tail blocks leave
// gaps, and a few pages of tail blocks change.
constexpr std::uint64_t kMoreSparePages = 64;

}  // namespace

bool IsFull(const FileIOException& error) noexcept {
#ifdef EDQUOT
    if (error.errorCode == EDQUOT) { return true; }
#endif
    return error.errorCode == ENOSPC;
}

std::uint64_t SpaceBudget(const char* directory, std::uint64_t reserved) noexcept {
    std::uint64_t available = 0;
    if (!Platform::GetFreeDiskSpace(directory, available)) {
        return kLargestSpaceBudget;  // a full volume is better than an empty cache
    }
    return std::min(available - std::min(available, reserved), kLargestSpaceBudget);
}

std::uint64_t JournalBytes(const PagedFilePackage& package, const EffectIndex& index,
                           std::uint64_t replaced) {
    const std::uint64_t blocks = std::min(replaced, package.TailBlockCount());
    const std::uint64_t pages = index.TotalBytes() / kPageSize + package.HeadPageCount() +
                                kMoreJournalPages + blocks * kTailBlockPages;
    return pages * RollbackJournal::kBytesPerPage;
}

// The spare pages must leave most of the budget, from which the journal has already been taken.
void ReservePages(PagedFilePackage& package, const EffectIndex& index, std::uint64_t bytes,
                  std::uint64_t budget) {
    const std::uint64_t pages =
        (bytes + index.TotalBytes()) / kPageSize + package.HeadPageCount() + kMoreSparePages;
    if (pages * kPageSize <= budget / 4) { package.ReservePages(pages); }
}

}  // namespace Quorvel
