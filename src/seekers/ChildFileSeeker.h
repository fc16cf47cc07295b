#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pagestore/IPageAllocator.h"
#include "seekers/IPagedFileSeeker.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// Where a stream's whole pages lie. Also the stream directory's record in the file.
struct ChildFileExtent {
    std::uint64_t streamId;
    std::uint64_t byteSize;
    std::uint64_t firstPage;  // 0 when there is no whole page
    std::uint64_t wholePageCount;
};
static_assert(sizeof(ChildFileExtent) == 32);
static_assert(offsetof(ChildFileExtent, byteSize) == 8);
static_assert(offsetof(ChildFileExtent, firstPage) == 16);
static_assert(offsetof(ChildFileExtent, wholePageCount) == 24);

// Where the bytes after a stream's whole pages lie.
struct ChildFileTail {
    std::uint64_t tailPage;       // page in which the tail begins
    std::uint64_t followingPage;  // page in which it continues; 0 when it ends in the same page
    std::uint64_t tailOffset;     // of its first byte in the tail page
    std::uint64_t tailLength;     // below 8192; 0 when there is no tail
};

// A child file stores one stream of the package: a chain of whole pages, full of data, then a tail
// of less than a page. The tail lies in a block of pages that the tails of several streams share.
// It may cross from one page of its block to the next, so it takes up to two entries in the page
// table.
class ChildFileSeeker : public IPagedFileSeeker {
public:
    ChildFileSeeker() = default;
    ~ChildFileSeeker() override = default;

    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t position) override;
    bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset, const PagePosition& from,
                      std::uint32_t distance) override;

    // Does nothing: every page is known once the seeker is attached.
    void LoadPageInfo(std::uint64_t pageIndex) override;

    // Builds the page table; the chain of whole pages comes from the allocator. Always returns
    // true. Throws FileDataCorruptException when extent, tail and chain contradict each other, or
    // when the file is empty.
    virtual bool Attach(const Util::RefPtr<IPageAllocator>& allocator,
                        const ChildFileExtent& extent, const ChildFileTail& tail);

    // The logical position of a page position. Throws InvalidParameterException when the page index
    // is above pageCount.
    std::uint64_t PageToPosition(std::uint64_t pageIndex, std::uint64_t pageOffset) const;

    // Resets to the state of a new seeker.
    void Clear();

private:
    void CheckSizes() const;
    void AttachWholePages();
    void AttachTail();

    Util::RefPtr<IPageAllocator> allocator_;
    std::uint64_t tailEntryCount_ = 0;
    ChildFileExtent extent_ = {};
    ChildFileTail tail_ = {};
    std::vector<std::uint64_t> pageNumberTable_;
    std::vector<PageRange> rangeTable_;
};

}  // namespace Quorvel
