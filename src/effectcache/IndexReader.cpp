#include "effectcache/IndexReader.h"

#include <algorithm>
#include <new>

#include "effectcache/EffectRecord.h"
#include "platform/Assert.h"

namespace Quorvel {

namespace {

// The stream is asked for pieces of this size, and of at least what the next entry needs.
constexpr std::uint64_t kPieceSize = 0x10000;

}  // namespace

IndexEntry* IndexReader::ReadNext() {
    QUORVEL_ASSERT(left_ > 0);
    if (!Fill(sizeof(IndexEntry))) {
        return nullptr;
    }
    auto* const entry = std::launder(reinterpret_cast<IndexEntry*>(next_));
    const EffectRecord& record = entry->record;
    if (record.nameLength < kShortestName || record.nameLength > kLongestName ||
        record.effectSize < kSmallestEffect || record.effectSize > kLargestEffect ||
        entry->nameLength != record.nameLength) {
        return nullptr;
    }
    const std::size_t size = entry->Bytes().size();
    if (!Fill(size)) {
        return nullptr;
    }
    next_ += size;
    filled_ -= size;
    --left_;
    return entry;
}

// Reads on until `size` bytes of the next entry, at least its fixed part, are in memory. False when
// the stream ends before that.
bool IndexReader::Fill(std::size_t size) {
    if (filled_ >= size) {
        return true;
    }
    constexpr std::uint64_t kSmallestEntry = IndexEntrySize(kShortestName);
    const std::uint64_t needed = size + (left_ - 1) * kSmallestEntry;
    const std::uint64_t end = std::min(needed, std::max<std::uint64_t>(size, kPieceSize));
    filled_ += stream_.Read(next_ + filled_, end - filled_);
    return filled_ >= size;
}

}  // namespace Quorvel
