#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <vector>

#include "support/StdioFaults.h"

namespace Quorvel::Testing {

constexpr std::uint64_t kPageSize = 8192;

using Transfers = std::vector<StdioTransfer>;

// The transfers of a page cache. A loaded page is read. An evicted page is written, changed or not;
// the least recently used page is evicted first. A page by which the file grows is written before
// it is read.
class PageCacheModel {
public:
    PageCacheModel(std::uint64_t capacity, std::uint64_t fileSize)
        : capacity_(capacity), fileSize_(fileSize) {}

    // Pins the page. False if the cache has no room for it.
    bool Get(std::uint64_t page, bool forWrite);
    void Release(std::uint64_t page);
    void Ensure(std::uint64_t page);
    void Close();

    // The transfers since the last call.
    Transfers Take();

private:
    void Transfer(StdioTransfer::Kind kind, std::uint64_t page);
    bool MakeRoom();

    std::uint64_t capacity_;
    std::uint64_t fileSize_;
    std::list<std::uint64_t> recent_;    // the pages in the cache, the most recently used first
    std::map<std::uint64_t, int> pins_;  // of those pages
    Transfers transfers_;
};

}  // namespace Quorvel::Testing
