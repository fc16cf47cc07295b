#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectRecord.h"
#include "effectcache/EffectTable.h"
#include "effectcache/PendingEffect.h"
#include "effectcache/StreamHelpers.h"
#include "platform/Assert.h"

namespace Quorvel {

// The effects that were cached since the last save.
class EffectQueue {
public:
    std::uint64_t Size() const { return table_.Size(); }

    // An over-estimate of what the effects will take in the file: an effect that is added twice
    // counts twice.
    std::uint64_t ByteCount() const { return byteCount_; }

    // True if there are enough bytes for a save.
    bool IsDue() const { return byteCount_ >= kSaveThreshold; }

    // The effect of a name with that hash; null when there is none.
    const PendingEffect* Find(const EffectKey& name, std::uint32_t hash) const {
        return table_.Find(name, hash);
    }

    // Adds a copy of an effect, replacing the one that had the name. REQUIRES: the lengths are in
    // range. Throws std::bad_alloc, changing nothing.
    void Add(const EffectKey& name, std::uint32_t hash, std::span<const unsigned char> compiled,
             bool permanent) {
        QUORVEL_ASSERT(name.length >= kShortestName && name.length <= kLongestName);
        QUORVEL_ASSERT(compiled.size() >= kSmallestEffect && compiled.size() <= kLargestEffect);
        table_.Put(name, hash, compiled, permanent, nextOrder_++);
        byteCount_ += IndexEntrySize(name.length) + SerializedSize(compiled.size());
    }

    // All effects in key order. The list is valid until the queue changes. Throws std::bad_alloc.
    const std::vector<PendingEffect*>& Entries() { return table_.Entries(); }

    void Clear() {
        table_.Clear();
        byteCount_ = 0;
        nextOrder_ = 0;
    }

private:
    static constexpr std::uint64_t kSaveThreshold = 0x200000;

    EffectTable<PendingEffect> table_;
    std::uint64_t byteCount_ = 0;
    std::uint32_t nextOrder_ = 0;
};

}  // namespace Quorvel
