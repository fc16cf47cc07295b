#include "seekers/ChildFileSeeker.h"

#include <algorithm>

#include "pagestore/PageGeometry.h"
#include "platform/Assert.h"
#include "quorvel/Exceptions.h"

namespace Quorvel {

namespace {

// The initial capacity of a page table.
constexpr std::uint64_t kUsualPageCount = 256;

}  // namespace

bool ChildFileSeeker::PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                                     std::int32_t position) {
    pageIndex = 0;
    pageOffset = 0;
    if (position < 0 || position > static_cast<std::int32_t>(byteSize)) { return false; }
    const auto logical = static_cast<std::uint64_t>(position);
    std::uint64_t index = logical >> kPageShift;
    std::uint64_t offset = logical & (kPageSize - 1);
    if (index >= extent_.wholePageCount && index < pageCount) {
        const PageRange& range = rangeTable_[index];
        const std::uint64_t length = range.end - range.start;
        if (offset < length) {
            offset += range.start;
        } else {
            ++index;
            offset -= length;
        }
    }
    if (index >= pageCount) {
        // The end of the data maps to the end of the last entry.
        if (index == 0 || index > pageCount || offset != 0) { return false; }
        --index;
        offset = rangeTable_[index].end;
    }
    QUORVEL_ASSERT(offset <= rangeTable_[index].end);
    pageIndex = index;
    pageOffset = offset;
    return true;
}

bool ChildFileSeeker::MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                                   const PagePosition& from, std::uint32_t distance) {
    if (from.pageIndex > pageCount) { return false; }
    const std::uint64_t logical = PageToPosition(from.pageIndex, from.pageOffset);
    return PositionToPage(
        pageIndex, pageOffset,
        static_cast<std::int32_t>(static_cast<std::uint32_t>(logical + distance)));
}

void ChildFileSeeker::LoadPageInfo(std::uint64_t /*pageIndex*/) {}

bool ChildFileSeeker::Attach(const Util::RefPtr<IPageAllocator>& allocator,
                             const ChildFileExtent& extent, const ChildFileTail& tail) {
    Clear();
    allocator_ = allocator;
    extent_ = extent;
    tail_ = tail;
    byteSize = extent_.byteSize;
    tailEntryCount_ = 2;
    pageCount = extent_.wholePageCount + tailEntryCount_;
    CheckSizes();
    AttachWholePages();
    AttachTail();
    if (pageCount == 0) { throw FileDataCorruptException(); }
    QUORVEL_ASSERT(pageNumberTable_.size() == pageCount && rangeTable_.size() == pageCount);
    pageNumbers = pageNumberTable_.data();
    pageRanges = rangeTable_.data();
    return true;
}

// Checks as if the tail took two pages, even if it takes fewer.
void ChildFileSeeker::CheckSizes() const {
    if (byteSize > pageCount * kPageSize ||
        byteSize != extent_.wholePageCount * kPageSize + tail_.tailLength ||
        pageCount > kPageCountLimit || tail_.tailOffset >= kPageSize ||
        tail_.tailLength >= kPageSize) {
        throw FileDataCorruptException();
    }
}

void ChildFileSeeker::AttachWholePages() {
    // A damaged file can claim more pages than its chain has.
    const std::uint64_t expected = std::min<std::uint64_t>(pageCount, kUsualPageCount);
    pageNumberTable_.reserve(expected);
    rangeTable_.reserve(expected);
    std::uint64_t page = extent_.firstPage;
    for (std::uint64_t index = 0; index < extent_.wholePageCount; ++index) {
        // No page follows two others, so a chain can only return to its first page.
        if (!IsValidPageNumber(page) || (index > 0 && page == extent_.firstPage)) {
            throw FileDataCorruptException();
        }
        pageNumberTable_.push_back(page);
        rangeTable_.push_back({0, kPageSize});
        page = allocator_->GetNextPage(page);
        if (page == kFreePage) {
            throw FileDataCorruptException();  // the page itself is free or unknown
        }
    }
}

void ChildFileSeeker::AttachTail() {
    tailEntryCount_ = 0;
    if (tail_.tailLength != 0) {
        if (!IsValidPageNumber(tail_.tailPage)) { throw FileDataCorruptException(); }
        QUORVEL_ASSERT(tail_.tailOffset < kPageSize && tail_.tailLength < kPageSize);
        const std::uint64_t room = kPageSize - tail_.tailOffset;
        pageNumberTable_.push_back(tail_.tailPage);
        const std::uint64_t end = tail_.tailOffset + std::min(room, tail_.tailLength);
        rangeTable_.push_back({tail_.tailOffset, end});
        tailEntryCount_ = 1;
        if (room <= tail_.tailLength) {
            if (tail_.followingPage != 0) {
                if (allocator_->GetNextPage(tail_.tailPage) != tail_.followingPage) {
                    throw FileDataCorruptException();
                }
            } else if (tail_.tailOffset + tail_.tailLength > kPageSize) {
                throw FileDataCorruptException();
            }
            // A tail that ends with its page gets an empty second entry, to which the end of the
            // file maps.
            pageNumberTable_.push_back(tail_.followingPage);
            rangeTable_.push_back({0, tail_.tailLength - room});
            tailEntryCount_ = 2;
        }
    }
    pageCount = extent_.wholePageCount + tailEntryCount_;
}

std::uint64_t ChildFileSeeker::PageToPosition(std::uint64_t pageIndex,
                                              std::uint64_t pageOffset) const {
    if (pageIndex > pageCount) { throw InvalidParameterException(); }
    const std::uint64_t wholePages = extent_.wholePageCount;
    if (pageIndex < wholePages) { return pageIndex * kPageSize + pageOffset; }
    const std::uint64_t wholeBytes = wholePages * kPageSize;
    // The index after the last entry has no range: its offset counts from 0.
    const std::uint64_t start = pageIndex < pageCount ? rangeTable_[pageIndex].start : 0;
    if (pageIndex == wholePages) { return wholeBytes + pageOffset - start; }
    const PageRange& before = rangeTable_[pageIndex - 1];
    return wholeBytes + (before.end - before.start) + (pageOffset - start);
}

void ChildFileSeeker::Clear() {
    allocator_.Reset();
    tailEntryCount_ = 0;
    extent_ = {};
    tail_ = {};
    pageNumberTable_.clear();
    rangeTable_.clear();
    ResetTables();
}

}  // namespace Quorvel
