#pragma once

#include <cstdint>
#include <string>

#include "effectcache/IndexEntry.h"

// What an entry of the index says.
namespace Quorvel::Testing {

// By value: the field may stand at any address.
inline std::uint64_t StreamIdOf(const IndexEntry* entry) {
    return entry->record.streamId;
}

inline std::string NameOf(const IndexEntry& entry) {
    const EffectKey key = entry.Key();
    return {reinterpret_cast<const char*>(key.bytes), key.length};
}

}  // namespace Quorvel::Testing
