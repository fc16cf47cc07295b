#include "seekers/HeadFileSeeker.h"

#include <algorithm>
#include <cstring>

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

void HeadFileSeeker::LoadPageInfo(std::uint64_t pageIndex) {
    QUORVEL_ASSERT(pageIndex < pageCount);
    if (pageNumberTable_[pageIndex] != 0) { return; }
    QUORVEL_ASSERT(pageIndex > loadedThrough);
    for (std::uint64_t index = loadedThrough + 1; index <= pageIndex; ++index) {
        const std::uint64_t number = nextPageTable_[index - 1];
        const auto known = pageNumberTable_.begin() + static_cast<std::ptrdiff_t>(index);
        if (std::find(pageNumberTable_.begin(), known, number) != known) {
            throw FileDataCorruptException();
        }
        pageNumberTable_[index] = number;

        PageRef page(cache_);
        page.SetReadPage(number);
        if (!page.Data()) { throw FileDataCorruptException(); }
        HeadFilePageHeader header;
        std::memcpy(&header, page.Data(), sizeof header);
        nextPageTable_[index] = header.nextPage;
        rangeTable_[index] = {kPageHeaderSize, header.dataEnd};
        if (!ValidatePageInfo(index)) { throw FileDataCorruptException(); }
    }
    loadedThrough = pageIndex;
}

}  // namespace Quorvel
