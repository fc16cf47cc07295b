#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "platform/Assert.h"

namespace Quorvel {

#pragma pack(push, 1)
// An effect of the file, an entry of an EffectTable. In memory it consists of the same bytes as in
// the index stream: the record, the length of the name again, and the name.
struct IndexEntry {
    static std::size_t SizeFor(const EffectKey& key, const EffectRecord& /*record*/) {
        return IndexEntrySize(key.length);
    }

    // Makes an entry in `memory`. REQUIRES: the record states the length of the name.
    static IndexEntry* Write(std::byte* memory, const EffectKey& key, std::uint32_t /*hash*/,
                             const EffectRecord& record) {
        QUORVEL_ASSERT(record.nameLength == key.length);
        std::memcpy(memory + sizeof(IndexEntry), key.bytes, key.length);
        return ::new (memory) IndexEntry{record, record.nameLength};
    }

    // The size of the entry at the start of `bytes`; the size of its fixed part if `bytes` are
    // shorter than that. 0 if the entry is out of range or contradicts itself.
    static std::size_t SizeIn(std::span<const std::byte> bytes) {
        if (bytes.size() < sizeof(IndexEntry)) { return sizeof(IndexEntry); }
        IndexEntry entry;
        std::memcpy(&entry, bytes.data(), sizeof entry);
        const EffectRecord& record = entry.record;
        const bool isValid =
            record.nameLength >= kShortestName && record.nameLength <= kLongestName &&
            record.effectSize >= kSmallestEffect && record.effectSize <= kLargestEffect &&
            entry.nameLength == record.nameLength;
        return isValid ? IndexEntrySize(record.nameLength) : 0;
    }

    EffectKey Key() const {
        return {reinterpret_cast<const unsigned char*>(this + 1), record.nameLength};
    }
    std::span<const unsigned char> Bytes() const {
        return {reinterpret_cast<const unsigned char*>(this), IndexEntrySize(record.nameLength)};
    }

    EffectRecord record;
    std::uint64_t nameLength;
};
#pragma pack(pop)
static_assert(sizeof(IndexEntry) == IndexEntrySize(0));

}  // namespace Quorvel
