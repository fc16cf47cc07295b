#pragma once

#include <cstddef>
#include <cstdint>

#include "effectcache/IndexEntry.h"
#include "quorvel/IDataStream.h"

namespace Quorvel {

// Reads the entries of an index stream in large pieces. It reads ahead only as far as the remaining
// entries must reach: bytes of the stream after the last entry are not touched.
class IndexReader {
public:
    // Reads `count` entries into `memory`, which has room for the whole stream.
    IndexReader(IDataStream& stream, std::byte* memory, std::uint64_t count)
        : stream_(stream), next_(memory), left_(count) {}
    IndexReader(const IndexReader&) = delete;
    IndexReader& operator=(const IndexReader&) = delete;

    // The next entry, in the reader's memory. Null when the entry is out of range or contradicts
    // itself, or the stream ends early. REQUIRES: fewer than `count` were read. Throws what the
    // stream throws.
    [[nodiscard]] IndexEntry* ReadNext();

private:
    bool Fill(std::size_t size);

    IDataStream& stream_;
    std::byte* next_;         // where the next entry begins
    std::size_t filled_ = 0;  // bytes that have been read from there on
    std::uint64_t left_;      // entries still to be read
};

}  // namespace Quorvel
