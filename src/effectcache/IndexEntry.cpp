#include "effectcache/IndexEntry.h"

#include <cstring>
#include <new>

namespace Quorvel {

EffectTable<IndexEntry>::Owner IndexEntry::Make(const EffectKey& key, const EffectRecord& record) {
    void* const memory = ::operator new(IndexEntrySize(key.length));
    EffectTable<IndexEntry>::Owner entry(::new (memory) IndexEntry{record, key.length});
    std::memcpy(static_cast<unsigned char*>(memory) + sizeof(IndexEntry), key.bytes, key.length);
    return entry;
}

void IndexEntry::Free(IndexEntry* entry) noexcept {
    ::operator delete(entry);
}

}  // namespace Quorvel
