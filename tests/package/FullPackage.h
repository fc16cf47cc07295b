#pragma once

#include <algorithm>

#include "format/PackageWriter.h"

namespace Quorvel::Testing {

// A package file without streams whose link table has an entry for every possible page. All pages
// are in use except `freePages` pages after the head file.
inline Format::Bytes FullPackage(std::uint64_t freePages) {
    constexpr std::uint64_t kStateSize = 8 + 8 * Format::kPageCountLimit + 8 + 16 + 8;
    constexpr std::uint64_t kHeadPages = 1 + (kStateSize - 8160 + 8175) / 8176;
    Format::PackageImage image;
    image.file.resize((kHeadPages + freePages) * Format::kPageSize);
    image.links.resize(Format::kPageCountLimit, Format::kChainEnd);
    for (std::uint64_t index = 0; index < kHeadPages; ++index) {
        const std::uint64_t next = index + 1 < kHeadPages ? index + 11 : Format::kChainEnd;
        image.headPages.push_back({index + 10, next, 0});
        image.links[index] = next;
    }
    std::fill_n(image.links.begin() + kHeadPages, freePages, Format::kFreePage);
    return Format::EncodePackage(image);
}

}  // namespace Quorvel::Testing
