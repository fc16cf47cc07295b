#pragma once

#include <cstdint>
#include <list>
#include <vector>

#include "pagestore/IPageAllocator.h"
#include "pagestore/PageGeometry.h"
#include "quorvel/IDataStream.h"
#include "vornutil/RefPtr.h"

namespace Quorvel {

// The page allocator of a package. Freed pages are used again, in the order in which they were
// freed, before the file grows.
//
// A page's whole persistent state is its link: kFreePage, kEndOfChain, or its successor's number.
// The saved state is the number of links (8 bytes) and the links in page order (8 bytes each).
// Everything else is rebuilt from them.
class PageAllocator : public IPageAllocator {
public:
    PageAllocator();

    std::uint64_t AllocatePage(std::uint64_t previous) override;
    void FreePage(std::uint64_t page) override;
    bool MarkPageAllocated(std::uint64_t page) override;
    bool IsPageAllocated(std::uint64_t page) override;
    std::uint64_t GetNextPage(std::uint64_t page) override;

    // Forgets every page.
    void Clear();

    // The largest number of a page that was handed out, claimed, or in use when the state was
    // loaded; 10 when there was none.
    std::uint64_t HighestPage() const { return highestPage_; }

    // The number of pages that the allocator knows, and of the free ones among them.
    std::uint64_t PageCount() const { return links_.size(); }
    std::uint64_t FreePageCount() const;

    // For each page index, whether the page is in use. Throws std::bad_alloc.
    std::vector<bool> PagesInUse() const;

    // Bytes that SaveState writes.
    std::uint64_t GetStateSize() const;

    // Writes the state to a stream. Returns true. Throws FileIOException when the stream is full.
    bool SaveState(const Util::RefPtr<IDataStream>& stream) const;

    // Replaces the state with one read from a stream. Returns true. Throws FileDataCorruptException
    // when the stream ends early or counts more pages than there can be, or when a page follows two
    // others or a successor is past the last page; the state is then unspecified.
    bool LoadState(const Util::RefPtr<IDataStream>& stream);

private:
    static std::uint64_t IndexOf(std::uint64_t page);

    bool IsKnown(std::uint64_t index) const { return index < links_.size(); }
    std::uint64_t TakeCandidate(std::uint64_t previous);
    void ReadLinks(const Util::RefPtr<IDataStream>& stream);
    void RebuildFromLinks();

    // See HighestPage.
    std::uint64_t highestPage_;

    // By page index: each page's predecessor (0 for none), and its link. previousPages_ is one
    // longer after memory has run out for a new link.
    std::vector<std::uint64_t> previousPages_;
    std::vector<std::uint64_t> links_;

    // Pages to use again, the oldest first. May name pages that were marked in use meanwhile.
    std::list<std::uint64_t> freeQueue_;
};

}  // namespace Quorvel
