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
    // Throws std::bad_alloc.
    static EffectTable<PendingEffect>::Owner Make(const EffectKey& key,
                                                  std::span<const unsigned char> bytes,
                                                  std::uint32_t permanent);
    static void Free(PendingEffect* effect) noexcept;

    EffectKey Key() const { return {Memory(), nameLength_}; }
    std::span<const unsigned char> Bytes() const { return {Memory() + nameLength_, size_}; }
    std::uint32_t Permanent() const { return permanent_; }

private:
    PendingEffect(std::uint32_t size, std::uint32_t nameLength, std::uint32_t permanent)
        : size_(size), nameLength_(nameLength), permanent_(permanent) {}

    const unsigned char* Memory() const { return reinterpret_cast<const unsigned char*>(this + 1); }

    std::uint32_t size_;
    std::uint32_t nameLength_;
    std::uint32_t permanent_;
};

}  // namespace Quorvel
