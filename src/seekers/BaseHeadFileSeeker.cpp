#include "seekers/BaseHeadFileSeeker.h"

#include <algorithm>
#include <cstring>

#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

// mutation: a head file that is created or opened sets loadedThrough again
BaseHeadFileSeeker::BaseHeadFileSeeker(FilePageCache* cache) : cache_(cache), loadedThrough(0) {}

BaseHeadFileSeeker::~BaseHeadFileSeeker() {
    Clear();
}

bool BaseHeadFileSeeker::PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                                        std::int32_t position) {
    pageIndex = 0;
    pageOffset = 0;
    if (pageNumberTable_.empty() || position < 0 ||
        position > static_cast<std::int32_t>(byteSize)) {
        return false;
    }
    const auto logical = static_cast<std::uint64_t>(position);
    const std::uint64_t firstPageBytes = rangeTable_[0].end - rangeTable_[0].start;
    if (logical < firstPageBytes) {
        pageOffset = rangeTable_[0].start + logical;
        return true;
    }
    const std::uint64_t behindFirst = logical - firstPageBytes;
    const std::uint64_t index = behindFirst / kPageCapacity + 1;
    QUORVEL_ASSERT(pageNumberTable_.size() == pageCount && rangeTable_.size() == pageCount);
    if (index < pageCount) {
        LoadPageInfo(index);
        pageIndex = index;
        pageOffset = rangeTable_[index].start + behindFirst % kPageCapacity;
        return pageOffset <= rangeTable_[index].end;
    }
    // An end of the file at a page boundary maps to the end of the page before it.
    if (index > pageCount || behindFirst % kPageCapacity != 0) { return false; }
    LoadPageInfo(index - 1);
    pageIndex = index - 1;
    pageOffset = rangeTable_[index - 1].end;
    return true;
}

bool BaseHeadFileSeeker::MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                                      const PagePosition& from, std::uint32_t distance) {
    // The range is checked before the page is loaded: a position that this seeker returned always
    // lies in a loaded page.
    if (pageNumberTable_.empty() || from.pageIndex >= pageCount ||
        from.pageOffset > rangeTable_[from.pageIndex].end) {
        return false;
    }
    LoadPageInfo(from.pageIndex);
    const std::uint64_t base =
        from.pageIndex == 0 ? 0 : kFirstPageCapacity + (from.pageIndex - 1) * kPageCapacity;
    const std::uint64_t logical = base + (from.pageOffset - rangeTable_[from.pageIndex].start);
    return PositionToPage(
        pageIndex, pageOffset,
        static_cast<std::int32_t>(static_cast<std::uint32_t>(logical + distance)));
}

bool BaseHeadFileSeeker::ValidatePageInfo(std::uint64_t pageIndex) {
    QUORVEL_ASSERT(pageIndex < pageCount && rangeTable_.size() == pageCount);
    const PageRange& range = rangeTable_[pageIndex];
    if (!IsValidPageNumber(pageNumberTable_[pageIndex]) || range.end <= range.start ||
        range.end > kPageSize) {
        return false;
    }
    if (nextPageTable_[pageIndex] == 0) { return true; }
    return range.end - range.start == (pageIndex > 0 ? kPageCapacity : kFirstPageCapacity);
}

bool BaseHeadFileSeeker::CreateHeadFile(const std::uint64_t* pages, const std::uint64_t* nextPages,
                                        std::uint64_t newPageCount, std::uint64_t newByteSize) {
    if (newByteSize == 0) { return false; }
    if (newByteSize > kPageCountLimit << kPageShift || PagesForSize(newByteSize) != newPageCount ||
        pages[0] != kHeadPageNumber) {
        throw InvalidParameterException();
    }
    Clear();
    byteSize = newByteSize;
    pageCount = newPageCount;
    if (QUORVEL_NEVER(pageCount == 0)) { throw InvalidParameterException(); }
    SizeTables();
    std::copy_n(pages, newPageCount, pageNumberTable_.begin());
    std::copy_n(nextPages, newPageCount, nextPageTable_.begin());
    rangeTable_[0] = {kFirstPageHeaderSize, DataEndForPage(0)};

    PageRef page(cache_);
    page.SetWritePage(kHeadPageNumber);
    if (!page.Data()) { throw FileDataCorruptException(); }
    const HeadFileHeader header = {pageCount, byteSize, nextPageTable_[0], rangeTable_[0].end};
    std::memcpy(page.Data(), &header, sizeof header);
    return true;
}

bool BaseHeadFileSeeker::OpenHeadFile() {
    Clear();
    PageRef page(cache_);
    page.SetReadPage(kHeadPageNumber);
    if (!page.Data()) { throw FileDataCorruptException(); }
    HeadFileHeader header;
    std::memcpy(&header, page.Data(), sizeof header);
    // The limit on the size is loose: it ignores the page headers.
    if (header.pageCount == 0 || header.pageCount > kPageCountLimit ||
        header.byteSize > header.pageCount * kPageSize) {
        throw FileDataCorruptException();
    }
    byteSize = header.byteSize;
    pageCount = header.pageCount;
    SizeTables();
    pageNumberTable_[0] = kHeadPageNumber;
    nextPageTable_[0] = header.nextPage;
    rangeTable_[0] = {kFirstPageHeaderSize, header.dataEnd};
    if (!ValidatePageInfo(0)) { throw FileDataCorruptException(); }
    return true;
}

std::uint64_t BaseHeadFileSeeker::PagesForSize(std::uint64_t size) {
    if (size < kFirstPageCapacity) { return 1; }
    const std::uint64_t behindFirst = size - kFirstPageCapacity;
    return 1 + behindFirst / kPageCapacity + (behindFirst % kPageCapacity != 0 ? 1 : 0);
}

std::uint64_t BaseHeadFileSeeker::DataEndForPage(std::uint64_t pageIndex) const {
    if (byteSize < kFirstPageCapacity) { return byteSize + kFirstPageHeaderSize; }
    const std::uint64_t endOfFullPage = kFirstPageCapacity + pageIndex * kPageCapacity;
    if (pageIndex != 0 && endOfFullPage > byteSize) {
        return kPageSize - (endOfFullPage - byteSize);
    }
    return kPageSize;
}

void BaseHeadFileSeeker::Clear() {
    pageNumberTable_.clear();
    nextPageTable_.clear();
    rangeTable_.clear();
    loadedThrough = 0;
    ResetTables();
}

void BaseHeadFileSeeker::SizeTables() {
    pageNumberTable_.resize(pageCount);
    nextPageTable_.resize(pageCount);
    rangeTable_.resize(pageCount);
    pageNumbers = pageNumberTable_.data();
    pageRanges = rangeTable_.data();
}

}  // namespace Quorvel
