#pragma once

#include <cstddef>
#include <cstdint>

#include "effectcache/EffectTable.h"
#include "effectcache/IndexEntry.h"
#include "quorvel/IDataStream.h"

namespace Quorvel {

// Reads entries from an index stream, in large pieces and straight to where a table keeps them. It
// reads ahead only as far as the entries that are still to come must reach: bytes of the stream
// behind the last one are not touched.
class IndexReader {
public:
    // For so many entries, which go into the table. Nothing else may be put into the table before
    // they are read.
    IndexReader(IDataStream& stream, EffectTable<IndexEntry>& table, std::uint64_t count)
        : stream_(stream), table_(table), left_(count) {}
    IndexReader(const IndexReader&) = delete;
    IndexReader& operator=(const IndexReader&) = delete;

    // The next entry, which it appends to the table; null when it is out of range or does not agree
    // with itself, or the stream ends early. Throws std::bad_alloc, and whatever the stream throws.
    const IndexEntry* ReadNext();

private:
    bool BringIn(std::size_t size) { return filled_ >= size || Fill(size); }
    bool Fill(std::size_t size);

    IDataStream& stream_;
    EffectTable<IndexEntry>& table_;
    std::uint64_t left_;         // entries that are still to be read
    std::byte* room_ = nullptr;  // the table's room, where the next entry begins
    std::size_t filled_ = 0;     // bytes of the stream that are there
};

}  // namespace Quorvel
