#pragma once

#include <cstdint>
#include <string>

#include "effectcache/IndexEntry.h"

// Reads the fields of an index entry.
namespace Quorvel::Testing {

// Returned by value because the field may be unaligned.
inline std::uint64_t StreamIdOf(const IndexEntry* entry) {
    return entry->record.streamId;
}

inline std::string NameOf(const IndexEntry& entry) {
    const EffectKey key = entry.Key();
    return {reinterpret_cast<const char*>(key.bytes), key.length};
}

}  // namespace Quorvel::Testing
