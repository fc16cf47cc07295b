#include "format/PageOwners.h"

#include <algorithm>
#include <cstddef>

namespace Quorvel::Format {

std::vector<PageOwner> FindPageOwners(const PackageState& state, std::uint64_t fileSize) {
    // Chains may lead through pages past the end of the file.
    const std::uint64_t count =
        std::min<std::uint64_t>((fileSize + kPageSize - 1) / kPageSize, kPageCountLimit);
    const std::uint64_t end = std::max<std::uint64_t>(count, state.links.size());
    std::vector<PageOwner> owners;
    for (std::uint64_t page = kFirstPage; page < kFirstPage + end; ++page) {
        const bool isKnown = page - kFirstPage < state.links.size();
        const bool isFree = state.Link(page) == kFreePage;
        owners.push_back({!isKnown ? PageUse::kDead
                          : isFree ? PageUse::kFree
                                   : PageUse::kUnowned,
                          0});
    }
    const auto own = [&](std::uint64_t page, PageUse use, std::uint64_t id) {
        if (!IsPageNumber(page) || page - kFirstPage >= end) { return false; }
        PageOwner& owner = owners[static_cast<std::size_t>(page - kFirstPage)];
        const bool isNew = owner.use != use;
        owner = {use, id};
        return isNew;
    };
    for (const StreamRecord& stream : state.streams) {
        std::uint64_t page = stream.firstPage;
        // Once two chains have met, they stay the same.
        for (std::uint64_t i = 0; i < stream.pageCount && own(page, PageUse::kStream, stream.id);
             ++i) {
            page = state.Link(page);
        }
    }
    for (const TailBlock& block : state.blocks) {
        for (const std::uint64_t page : block.pages) {
            own(page, PageUse::kTail, block.id);
        }
    }
    for (std::size_t i = 0; i < state.headPages.size(); ++i) {
        own(state.headPages[i].number, PageUse::kHead, i);
    }
    owners.erase(owners.begin() + static_cast<std::ptrdiff_t>(count), owners.end());
    return owners;
}

}  // namespace Quorvel::Format
