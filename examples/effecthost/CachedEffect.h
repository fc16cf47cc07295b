#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace EffectHost {

using Bytes = std::vector<unsigned char>;

// What this host caches for an effect: the compiled bytes; how long compiling took, so that a later
// run knows the time it saved, or 0 if several processes were compiling at once, each of which
// slows the others down; and whether the effect is permanent, which the cache doesn't report.
struct CachedEffect {
    std::uint64_t compileMicroseconds = 0;
    Bytes bytes;
    bool permanent = false;
};

// The block that goes into the cache: a header with a checksum over itself, the effect's name and
// the bytes, then the bytes. The cache does not check contents; with the checksum the host detects
// damage on the disk, or another program's effect of the same name.
Bytes PackCachedEffect(std::string_view name, const CachedEffect& effect);

// Undoes PackCachedEffect. Empty when the block is damaged or was packed for another name.
std::optional<CachedEffect> UnpackCachedEffect(std::string_view name, const unsigned char* block,
                                               std::size_t size);

}  // namespace EffectHost
