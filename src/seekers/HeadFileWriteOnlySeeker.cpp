#include "seekers/HeadFileWriteOnlySeeker.h"

#include <cstring>

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

void HeadFileWriteOnlySeeker::LoadPageInfo(std::uint64_t pageIndex) {
    QUORVEL_ASSERT(pageIndex < pageCount);
    if (rangeTable_[pageIndex].start != 0) { return; }
    QUORVEL_ASSERT(pageIndex > loadedThrough);
    for (std::uint64_t index = loadedThrough + 1; index <= pageIndex; ++index) {
        PageRef page(cache_);
        page.SetWritePage(pageNumberTable_[index]);
        if (!page.Data()) { throw FileDataCorruptException(); }
        const HeadFilePageHeader header = {nextPageTable_[index], DataEndForPage(index)};
        std::memcpy(page.Data(), &header, sizeof header);
        rangeTable_[index] = {kPageHeaderSize, header.dataEnd};
    }
    loadedThrough = pageIndex;
}

}  // namespace Quorvel
