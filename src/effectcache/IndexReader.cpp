#include "effectcache/IndexReader.h"

#include <algorithm>
#include <span>

#include "effectcache/EffectRecord.h"

namespace Quorvel {

const IndexEntry* IndexReader::ReadNext() {
    if (!BringIn(sizeof(IndexEntry))) {
        return nullptr;
    }
    const auto* const head = reinterpret_cast<const IndexEntry*>(room_);
    const EffectRecord& record = head->record;
    if (record.nameLength < kShortestName || record.nameLength > kLongestName ||
        record.effectSize < kSmallestEffect || record.effectSize > kLargestEffect ||
        head->nameLength != record.nameLength) {
        return nullptr;
    }
    const std::size_t size = head->Bytes().size();
    if (!BringIn(size)) {
        return nullptr;
    }
    auto* const entry = static_cast<IndexEntry*>(table_.Allocate(size));
    table_.Append(entry);
    room_ += size;
    filled_ -= size;
    --left_;
    return entry;
}

// Reads on until so many bytes of the next entry, its head at least, are in the table's room. False
// when the stream has fewer.
bool IndexReader::Fill(std::size_t size) {
    constexpr std::uint64_t kSmallestEntry = IndexEntrySize(kShortestName);
    const std::span<std::byte> room = table_.Room(size, filled_);
    room_ = room.data();
    const std::uint64_t coming = size + (left_ - 1) * kSmallestEntry;
    const std::uint64_t end = std::min<std::uint64_t>(coming, room.size());
    filled_ += stream_.Read(room_ + filled_, end - filled_);
    return filled_ >= size;
}

}  // namespace Quorvel
