#pragma once

#include <cstdint>
#include <map>

#include "format/PackageImage.h"

namespace Quorvel::Format {

enum class PageOrder { kAscending, kDescending, kShuffled };

enum class TailPlacement {
    kPacked,     // streams in ascending order, each tail into the first block that has room
    kBlockEach,  // each tail alone in a block of its own
    kScattered,  // streams in random order, each tail into a random block that has room
};

// One of the many valid ways to lay out the same streams in a file. Random choices depend only on
// the seed.
struct PackageLayout {
    PageOrder pageOrder = PageOrder::kAscending;  // the order in which chains take page numbers
    bool interleaveChains = false;                // one page to each chain in turn
    unsigned freePages = 0;                       // spread among the used pages
    unsigned freePagesAtEnd = 0;                  // after them, past the end of the file
    TailPlacement tails = TailPlacement::kPacked;
    unsigned emptyBlocks = 0;     // tail blocks that hold nothing
    bool shuffleRecords = false;  // streams, blocks and fragments in random order in the tables
    unsigned seed = 1;
};

// Lays out streams in pages and fills in everything but the head file's pages.
PackageImage LayOutPackage(const std::map<std::uint64_t, Bytes>& streams, const Bytes& headerData,
                           const PackageLayout& layout);

// The head file's content: link table, stream directory, tail block table, header data.
Bytes EncodeState(const PackageImage& image);

// The file of an image: its bytes, with the state rewritten into image.headPages. Throws
// std::logic_error if the state needs a different number of pages.
Bytes EncodePackage(const PackageImage& image);

// A whole package file.
Bytes WritePackage(const std::map<std::uint64_t, Bytes>& streams, const Bytes& headerData,
                   const PackageLayout& layout = {});

}  // namespace Quorvel::Format
