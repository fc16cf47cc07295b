#include "format/PageOwners.h"

#include <cstddef>

namespace Quorvel::Format {

std::vector<PageOwner> FindPageOwners(const PackageState& state, std::uint64_t fileSize) {
    const std::uint64_t count = (fileSize + kPageSize - 1) / kPageSize;
    std::vector<PageOwner> owners;
    for (std::uint64_t page = kFirstPage; page < kFirstPage + count; ++page) {
        const bool isKnown = page - kFirstPage < state.links.size();
        const bool isFree = state.Link(page) == kFreePage;
        owners.push_back({!isKnown ? PageUse::kDead
                          : isFree ? PageUse::kFree
                                   : PageUse::kUnowned,
                          0});
    }
    const auto own = [&](std::uint64_t page, PageUse use, std::uint64_t id) {
        if (IsPageNumber(page) && page - kFirstPage < count) {
            owners[static_cast<std::size_t>(page - kFirstPage)] = {use, id};
        }
    };
    for (const StreamRecord& stream : state.streams) {
        std::uint64_t page = stream.firstPage;
        for (std::uint64_t i = 0; i < stream.pageCount && IsPageNumber(page); ++i) {
            own(page, PageUse::kStream, stream.id);
            page = state.Link(page);
            if (page == stream.firstPage) { break; }
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
    return owners;
}

}  // namespace Quorvel::Format
