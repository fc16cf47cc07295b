#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <vector>

#include "support/StdioFaults.h"

namespace Quorvel::Testing {

using Transfers = std::vector<StdioTransfer>;

// What a page cache transfers when it is asked for pages: each page that comes in is read, each one
// that goes out is written, whether it was changed or not, the one that was used longest ago first,
// and each page by which the file grows is written before.
class PageCacheModel {
public:
    PageCacheModel(std::uint64_t capacity, std::uint64_t fileSize)
        : capacity_(capacity), fileSize_(fileSize) {}

    // Whether there is a place for the page; one more pin on it if there is.
    bool Get(std::uint64_t page, bool forWrite);
    void Release(std::uint64_t page);
    void Ensure(std::uint64_t page);
    void Close();

    // What was transferred since the last call.
    Transfers Take();

private:
    void Transfer(StdioTransfer::Kind kind, std::uint64_t page);
    bool MakeRoom();

    std::uint64_t capacity_;
    std::uint64_t fileSize_;
    std::list<std::uint64_t> recent_;    // the pages in the cache, the last used one first
    std::map<std::uint64_t, int> pins_;  // of those
    Transfers transfers_;
};

}  // namespace Quorvel::Testing
