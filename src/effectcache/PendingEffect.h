#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>

#include "effectcache/EffectKey.h"

namespace Quorvel {

// An effect that waits for the next save, an entry of an EffectTable. Its name and its compiled
// bytes follow it in the same piece of memory.
class PendingEffect {
public:
    static std::size_t SizeFor(const EffectKey& key, std::span<const unsigned char> compiled,
                               bool /*permanent*/) {
        return sizeof(PendingEffect) + key.length + compiled.size();
    }

    // Makes an entry in `memory`. `hash` is the name's.
    static PendingEffect* Write(std::byte* memory, const EffectKey& key, std::uint32_t hash,
                                std::span<const unsigned char> compiled, bool permanent) {
        std::memcpy(memory + sizeof(PendingEffect), key.bytes, key.length);
        std::memcpy(memory + sizeof(PendingEffect) + key.length, compiled.data(), compiled.size());
        return ::new (memory)
            PendingEffect(hash, static_cast<std::uint32_t>(compiled.size()),
                          static_cast<std::uint32_t>(key.length), permanent ? 1U : 0U);
    }

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
