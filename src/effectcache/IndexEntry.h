#pragma once

#include <cstdint>
#include <span>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"

namespace Quorvel {

#pragma pack(push, 1)
// An effect of the file, an entry of an EffectTable. In memory, too, it is the bytes that stand for
// it in the index stream: the record, the length of the name once more, and the name behind it.
struct IndexEntry {
    // The record states the length of the name. Throws std::bad_alloc.
    static EffectTable<IndexEntry>::Owner Make(const EffectKey& key, const EffectRecord& record);
    static void Free(IndexEntry* entry) noexcept;

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
