#include "effectcache/IndexEntry.h"

#include <cstring>
#include <new>

namespace Quorvel {

IndexEntry* IndexEntry::Make(EffectTable<IndexEntry>& table, const EffectKey& key,
                             const EffectRecord& record) {
    IndexEntry* const entry = MakeUnnamed(table, record);
    std::memcpy(entry->Name(), key.bytes, key.length);
    return entry;
}

IndexEntry* IndexEntry::MakeUnnamed(EffectTable<IndexEntry>& table, const EffectRecord& record) {
    void* const memory = table.Allocate(IndexEntrySize(record.nameLength));
    return ::new (memory) IndexEntry{record, record.nameLength};
}

}  // namespace Quorvel
