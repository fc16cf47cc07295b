#pragma once

#include <cstdint>

#include "vornutil/RefObject.h"

namespace Quorvel {

// A place in a logical file: the index of one of its pages, and a byte offset from the physical
// start of that page.
struct PagePosition {
    std::uint64_t pageIndex;
    std::uint64_t pageOffset;
};

// The bytes of a page that hold data: offsets, from the physical start of the page, of the first
// one and one past the last.
struct PageRange {
    std::uint64_t start;
    std::uint64_t end;
};

// Knows which pages, and which bytes of each, make up one logical file, and maps logical positions
// to them. Positions are signed 32-bit numbers.
class IPagedFileSeeker : public Util::ARefObject {
public:
    IPagedFileSeeker() = default;
    ~IPagedFileSeeker() override { ResetTables(); }

    // Turns a logical position into a page position. The end of the file maps to the end of its
    // last page's data. Returns false when the position is negative, past the end or can't be
    // mapped; the outputs are set even then, to 0 unless a page was found.
    virtual bool PositionToPage(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                                std::int32_t position) = 0;

    // Finds the page position distance bytes after from, modulo 2^32, so a two's complement
    // distance moves backwards. Returns false as PositionToPage does, or when from is outside the
    // file.
    virtual bool MovePosition(std::uint64_t& pageIndex, std::uint64_t& pageOffset,
                              const PagePosition& from, std::uint32_t distance) = 0;

    // Fills in the page number and the range of every page up to pageIndex. Must be called before
    // either is read. REQUIRES: pageIndex < pageCount.
    virtual void LoadPageInfo(std::uint64_t pageIndex) = 0;

    // Logical size of the file in bytes, and the number of entries in the two tables below: a page
    // number and a range for each page index. Zero and null until the seeker is set up.
    std::uint64_t byteSize = 0;
    std::uint64_t pageCount = 0;
    std::uint64_t* pageNumbers = nullptr;
    PageRange* pageRanges = nullptr;

protected:
    void ResetTables() {
        byteSize = 0;
        pageCount = 0;
        pageNumbers = nullptr;
        pageRanges = nullptr;
    }
};

}  // namespace Quorvel
