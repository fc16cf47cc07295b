#pragma once

#include <cstdint>

#include "vornutil/RefObject.h"

namespace Quorvel {

// What GetNextPage returns for the last page of a chain, and for a free page.
constexpr std::uint64_t kEndOfChain = 0;
constexpr std::uint64_t kFreePage = 1;

// Decides which pages of a package are in use, and which page follows which. A logical file is a
// chain of pages: each page in use knows its successor. Page contents are not touched.
//
// FreePage, MarkPageAllocated, IsPageAllocated and GetNextPage throw InvalidParameterException for
// a number that no page can have.
class IPageAllocator : public Util::ARefObject {
public:
    // Takes a free page, or else a new one after all others, and makes it the successor of
    // previous; an invalid previous (0) starts a new chain. Returns the page's number. Throws
    // InvalidParameterException when, once the page is taken, previous is unknown, free or has a
    // successor (the page is then lost until the next load), and OutOfMemoryException when no
    // number is left.
    virtual std::uint64_t AllocatePage(std::uint64_t previous) = 0;

    // Makes a page free, even when memory has run out. Chains are freed from their first page
    // onwards, because the page's predecessor still names it as its successor. Throws
    // InvalidParameterException for an unknown page too.
    virtual void FreePage(std::uint64_t page) = 0;

    // Takes the given page; unknown pages before it become free. False if the page was in use.
    virtual bool MarkPageAllocated(std::uint64_t page) = 0;

    virtual bool IsPageAllocated(std::uint64_t page) = 0;

    // The page's successor; kEndOfChain if it has none; kFreePage for a free or unknown page. In a
    // state that another program wrote, any number that no page can have also means no successor.
    virtual std::uint64_t GetNextPage(std::uint64_t page) = 0;
};

}  // namespace Quorvel
