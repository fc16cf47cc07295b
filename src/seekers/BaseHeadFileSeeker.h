#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pagestore/FilePageCache.h"
#include "pagestore/PageGeometry.h"
#include "seekers/IPagedFileSeeker.h"

namespace Quorvel {

// The header of the head file's first page, page number 10.
struct HeadFileHeader {
    std::uint64_t pageCount;
    std::uint64_t byteSize;
    std::uint64_t nextPage;  // 0 on the last page
    std::uint64_t dataEnd;   // offset in this page, one past its last data byte
};

// The header of each of its other pages.
struct HeadFilePageHeader {
    std::uint64_t nextPage;
    std::uint64_t dataEnd;
};

constexpr std::uint64_t kFirstPageHeaderSize = 32;
constexpr std::uint64_t kPageHeaderSize = 16;
static_assert(sizeof(HeadFileHeader) == kFirstPageHeaderSize);
static_assert(offsetof(HeadFileHeader, byteSize) == 8);
static_assert(offsetof(HeadFileHeader, nextPage) == 16);
static_assert(offsetof(HeadFileHeader, dataEnd) == 24);
static_assert(sizeof(HeadFilePageHeader) == kPageHeaderSize);
static_assert(offsetof(HeadFilePageHeader, dataEnd) == 8);

// The number of data bytes in the first page, and in each other page.
constexpr std::uint64_t kFirstPageCapacity = kPageSize - kFirstPageHeaderSize;
constexpr std::uint64_t kPageCapacity = kPageSize - kPageHeaderSize;

// The head file is the logical file that holds the package's own state. It is a chain of pages that
// begins at page 10. Each page has a small header that names the next one, and every page but the
// last is full.
//
// LoadPageInfo fills the tables in page order: one subclass reads the headers of the pages, the
// other writes them. Entries after loadedThrough are zero, except for the page numbers and links
// that were given to CreateHeadFile.
class BaseHeadFileSeeker : public IPagedFileSeeker {
public:
    // The cache must outlive the seeker.
    explicit BaseHeadFileSeeker(FilePageCache* cache);
    ~BaseHeadFileSeeker() override;

    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t position) override;
    bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset, const PagePosition& from,
                      std::uint32_t distance) override;

    // True if the table entries of a page are acceptable: a valid page number and a range that is
    // not empty, and that is full unless the page is the last of the chain. REQUIRES: pageIndex <
    // pageCount.
    virtual bool ValidatePageInfo(std::uint64_t pageIndex);

    // Sets the seeker up for a head file of newByteSize bytes that is about to be written to the
    // given pages, linked by the given next-page values, and writes the first page's header.
    // Returns false when newByteSize is 0. Throws InvalidParameterException, before anything
    // changes, when the arguments contradict each other, and FileDataCorruptException when the
    // cache can't provide the page.
    bool CreateHeadFile(const std::uint64_t* pages, const std::uint64_t* nextPages,
                        std::uint64_t newPageCount, std::uint64_t newByteSize);

    // Reads and checks the first page's header. Always returns true. Throws
    // FileDataCorruptException.
    bool OpenHeadFile();

    // Number of pages that a head file of size bytes needs.
    static std::uint64_t PagesForSize(std::uint64_t size);

    // The dataEnd of a page in a head file of byteSize bytes.
    std::uint64_t DataEndForPage(std::uint64_t pageIndex) const;

    // Resets to the state of a new seeker.
    void Clear();

protected:
    // Gives the tables a zero entry for each of pageCount pages.
    void SizeTables();

    FilePageCache* cache_;
    std::uint64_t loadedThrough;
    std::vector<std::uint64_t> pageNumberTable_;
    std::vector<std::uint64_t> nextPageTable_;
    std::vector<PageRange> rangeTable_;
};

}  // namespace Quorvel
