#pragma once

#include <cstdint>
#include <span>

#include "effectcache/EffectKey.h"
#include "effectcache/EffectTable.h"

namespace Quorvel {

// An effect that waits for the next save, an entry of an EffectTable: its name and its bytes stand
// behind it, in the same piece of memory.
class PendingEffect {
public:
    // A new entry for a table; hash is the name's. Throws std::bad_alloc.
    static PendingEffect* Make(EffectTable<PendingEffect>& table, const EffectKey& key,
                               std::uint32_t hash, std::span<const unsigned char> compiled,
                               std::uint32_t permanent);

    EffectKey Key() const { return {Memory() + sizeof(PendingEffect), nameLength_}; }
    std::uint32_t Hash() const { return hash_; }
    std::span<const unsigned char> Compiled() const {
        return {Memory() + sizeof(PendingEffect) + nameLength_, size_};
    }
    std::uint32_t Permanent() const { return permanent_; }
    std::span<const unsigned char> Bytes() const {
        return {Memory(), sizeof(PendingEffect) + nameLength_ + size_};
    }

private:
    PendingEffect(std::uint32_t hash, std::uint32_t size, std::uint32_t nameLength,
                  std::uint32_t permanent)
        : hash_(hash), size_(size), nameLength_(nameLength), permanent_(permanent) {}

    const unsigned char* Memory() const { return reinterpret_cast<const unsigned char*>(this); }

    std::uint32_t hash_;
    std::uint32_t size_;
    std::uint32_t nameLength_;
    std::uint32_t permanent_;
};

}  // namespace Quorvel
