#include "effectcache/IndexEntry.h"

#include <cstring>
#include <new>

namespace Quorvel {

IndexEntry* IndexEntry::Make(EffectTable<IndexEntry>& table, const EffectKey& key,
                             const EffectRecord& record) {
    auto* const memory =
        static_cast<unsigned char*>(table.Allocate(IndexEntrySize(record.nameLength)));
    std::memcpy(memory + sizeof(IndexEntry), key.bytes, key.length);
    return ::new (memory) IndexEntry{record, record.nameLength};
}

}  // namespace Quorvel
