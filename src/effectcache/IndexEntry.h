#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "platform/Prefetch.h"

namespace Quorvel {

#pragma pack(push, 1)
// An effect of the file, an entry of an EffectTable. In memory, too, it is the bytes that stand for
// it in the index stream: the record, the length of the name once more, and the name behind it.
struct IndexEntry {
    // A new entry for a table. The record states the length of the name. Throws std::bad_alloc.
    static IndexEntry* Make(EffectTable<IndexEntry>& table, const EffectKey& key,
                            const EffectRecord& record);

    EffectKey Key() const {
        return {reinterpret_cast<const unsigned char*>(this + 1), record.nameLength};
    }
    std::span<const unsigned char> Bytes() const {
        return {reinterpret_cast<const unsigned char*>(this), IndexEntrySize(record.nameLength)};
    }

    // Hints that the entry will be read soon: as much of it as most names make of it.
    void Prefetch() const noexcept {
        constexpr std::size_t kUsualSize = 192;
        Platform::Prefetch(this, kUsualSize);
    }

    EffectRecord record;
    std::uint64_t nameLength;
};
#pragma pack(pop)
static_assert(sizeof(IndexEntry) == IndexEntrySize(0));

}  // namespace Quorvel
