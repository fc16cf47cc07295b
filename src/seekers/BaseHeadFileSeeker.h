#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "pagestore/FilePageCache.h"
#include "pagestore/PageGeometry.h"
#include "seekers/IPagedFileSeeker.h"

namespace Quorvel {

// What stands at the start of the head file's first page, page number 10.
struct HeadFileHeader {
    std::uint64_t pageCount;
    std::uint64_t byteSize;
    std::uint64_t nextPage;  // 0 on the last page
    std::uint64_t dataEnd;   // offset in this page of one past its last data byte
};

// What stands at the start of each of its other pages.
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

// Data bytes that the first page, and each of the others, holds.
constexpr std::uint64_t kFirstPageCapacity = kPageSize - kFirstPageHeaderSize;
constexpr std::uint64_t kPageCapacity = kPageSize - kPageHeaderSize;

// The head file: a package's root logical file, which holds the package's own state. It is a chain
// of pages that begins at page 10; each page has a small header that names the next one, and every
// page but the last is full.
//
// The tables are filled in page order by LoadPageInfo, which the two subclasses implement: one
// reads the pages' headers, the other writes them. Entries up to loadedThrough are known, the
// others zero.
class BaseHeadFileSeeker : public IPagedFileSeeker {
public:
    // The cache must outlive the seeker.
    explicit BaseHeadFileSeeker(FilePageCache* cache);
    ~BaseHeadFileSeeker() override;

    bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                        std::int32_t position) override;
    bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset, const PagePosition& from,
                      std::uint32_t distance) override;

    // Whether the table entries of a page are acceptable: a valid page number, a range that is not
    // empty, and full unless the page is the last of the chain.
    virtual bool ValidatePageInfo(std::uint64_t pageIndex);

    // Sets the seeker up for a head file of newByteSize bytes that is about to be written to the
    // given pages, linked by the given next-page values, and writes the first page's header. False
    // when newByteSize is 0. Throws InvalidParameterException, before anything changes, when the
    // arguments don't fit each other; FileDataCorruptException when the cache has no page to give.
    bool CreateHeadFile(const std::uint64_t* pages, const std::uint64_t* nextPages,
                        std::uint64_t newPageCount, std::uint64_t newByteSize);

    // Reads and checks the first page's header. Returns true. Throws FileDataCorruptException.
    bool OpenHeadFile();

    // Number of pages that a head file of that many bytes needs.
    static std::uint64_t PagesForSize(std::uint64_t size);

    // The data end that a page of a head file of byteSize bytes records.
    std::uint64_t DataEndForPage(std::uint64_t pageIndex) const;

    // Back to the state of a new seeker.
    void Clear();

protected:
    // Gives the tables an entry for each of pageCount pages, all zero.
    void SizeTables();

    FilePageCache* cache_;
    std::uint64_t loadedThrough;
    std::vector<std::uint64_t> pageNumberTable_;
    std::vector<std::uint64_t> nextPageTable_;
    std::vector<PageRange> rangeTable_;
};

}  // namespace Quorvel
