#pragma once

#include <cstdint>
#include <vector>

#include "format/PackageImage.h"

namespace Quorvel::Format {

enum class PageUse : std::uint8_t {
    kHead,     // the head file
    kStream,   // a whole page of a stream
    kTail,     // a tail block
    kFree,     // free, for the next stream
    kUnowned,  // in use according to the link table, but part of nothing
    kDead,     // past the last page of the link table
};

struct PageOwner {
    PageUse use;
    std::uint64_t id;  // of the stream or tail block, or the position in the head file
};

// What each page of a file of that size is used for, in the order of the file. If a page has
// several owners, one of them is named. An incomplete last page counts; pages past the highest page
// number don't.
std::vector<PageOwner> FindPageOwners(const PackageState& state, std::uint64_t fileSize);

}  // namespace Quorvel::Format
