#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace EffectHost {

using Bytes = std::vector<unsigned char>;

// What this host keeps in the cache for an effect: the compiled bytes, and what compiling them
// cost, so that a later run knows what it was spared. The cache does not tell whether an effect is
// permanent, so that is kept as well.
struct CachedEffect {
    std::uint64_t compileMicroseconds = 0;
    Bytes bytes;
    bool permanent = false;
};

// The block that goes into the cache: a header with a checksum over itself, the effect's name and
// the bytes, then the bytes. The cache promises to return what it was given; the checksum lets the
// host find out by itself when a disk did not, or when another program used the same name.
Bytes PackCachedEffect(std::string_view name, const CachedEffect& effect);

// Undoes PackCachedEffect. Empty when the block is not an intact one of that name.
std::optional<CachedEffect> UnpackCachedEffect(std::string_view name, const unsigned char* block,
                                               std::size_t size);

}  // namespace EffectHost
