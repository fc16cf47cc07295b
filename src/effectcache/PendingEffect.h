#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>

#include "effectcache/EffectKey.h"
#include "platform/Assert.h"

namespace Quorvel {

// An effect that waits for the next save, an entry of an EffectTable. Its name and its compiled
// bytes follow it in the same piece of memory.
struct PendingEffect {
    static std::size_t SizeFor(const EffectKey& key, std::span<const unsigned char> compiled,
                               bool /*permanent*/, std::uint32_t /*order*/) {
        return sizeof(PendingEffect) + key.length + compiled.size();
    }

    // Makes an entry in `memory`. REQUIRES: `hash` is the name's.
    static PendingEffect* Write(std::byte* memory, const EffectKey& key, std::uint32_t hash,
                                std::span<const unsigned char> compiled, bool permanent,
                                std::uint32_t order) {
        QUORVEL_ASSERT(hash == key.Hash());
        std::memcpy(memory + sizeof(PendingEffect), key.bytes, key.length);
        std::memcpy(memory + sizeof(PendingEffect) + key.length, compiled.data(), compiled.size());
        return ::new (memory)
            PendingEffect{hash, static_cast<std::uint32_t>(compiled.size()),
                          static_cast<std::uint32_t>(key.length), permanent ? 1U : 0U, order};
    }

    EffectKey Key() const { return {reinterpret_cast<const unsigned char*>(this + 1), nameLength}; }
    std::span<const unsigned char> Compiled() const { return {Key().bytes + nameLength, size}; }
    std::span<const unsigned char> Bytes() const {
        return {reinterpret_cast<const unsigned char*>(this),
                sizeof(PendingEffect) + nameLength + size};
    }

    std::uint32_t hash;
    std::uint32_t size;
    std::uint32_t nameLength;
    std::uint32_t permanent;
    std::uint32_t order;  // the newest effect in the queue has the largest
};

}  // namespace Quorvel
